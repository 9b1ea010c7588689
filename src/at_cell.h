// What the modem knows of the radio: signal figures, serving cells, the registered operator, the figures of the 5G
// cell. Raw values of the modem; what they mean in dBm and dB is in cell_figures.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "result.h"

// An operator selection (3GPP TS 27.007 7.3).
struct OperatorInfo {
    uint8_t mode;
    uint8_t has_format;
    uint8_t format; // 0 long name, 1 short name, 2 numeric
    uint8_t has_oper;
    uint8_t oper_len; // characters in oper
    char *oper;       // zero-terminated; filled by at_get_operator_info: heap text that the caller frees
    uint8_t has_act;
    uint8_t act;
};

// Index values of 3GPP TS 27.007 8.69, in the order of the answer. 255 stands for unknown, of the first two 99 as well.
struct ExtendedSignalQuality {
    uint8_t rxlev;
    uint8_t ber;
    uint8_t rscp;
    uint8_t ecno;
    uint8_t rsrq;
    uint8_t rsrp;
    uint8_t ss_rsrq;
    uint8_t ss_rsrp;
    uint8_t ss_sinr;
};

constexpr uint8_t RAT_NONE = 0;
constexpr uint8_t RAT_UMTS = 2;
constexpr uint8_t RAT_LTE = 4;
constexpr uint8_t RAT_NR = 9;

// Greatest indexes: 3GPP TS 36.133 9.1.4 and 9.1.7, 38.133 10.1.6 and 10.1.11, 27.007 8.69.
constexpr uint8_t LTE_RSRP_MAX = 97, LTE_RSRQ_MAX = 46, NR_RSRP_MAX = 126, NR_RSRQ_MAX = 127, UMTS_ECIO_MAX = 49;
constexpr int32_t NOISE_MIN = -100; // in LTE lines the index may be below zero
constexpr int32_t NOISE_ABSENT = 255;
constexpr uint8_t RSSI_UNKNOWN = 99; // of AT+CSQ

// One serving cell. The texts are always terminated and empty for what the modem leaves out or cannot know. A figure of
// the cell's RAT that is left out or out of its range is 255; figures of other RATs are zero.
struct ServingCellRecord {
    uint8_t rat; // RAT_..., or what else the modem reports
    char mcc[5];
    char mnc[5];
    char cellid[32]; // decimal
    char band[10];
    char lac[9];   // decimal; an NR tracking area has 24 bits
    uint8_t rsrp;  // index; of UMTS the Ec/Io index
    uint8_t rsrq;  // index
    uint8_t ecio;  // index, UMTS only
    int32_t noise; // index
    int32_t pcellid;
};
constexpr size_t SERVING_CELLS = 3;

constexpr size_t CELL_INFO_SIZE = 11;
// Texts of at most 10 characters; "--" for a figure that the answer does not hold or that is 255.
struct CellInfo {
    char Mode[CELL_INFO_SIZE];
    char BeamID[CELL_INFO_SIZE];
    char CQI[CELL_INFO_SIZE];
    char Power[CELL_INFO_SIZE];
    char RANK[CELL_INFO_SIZE];
    char DLMCS[CELL_INFO_SIZE];
    char ULMCS[CELL_INFO_SIZE];
};

// All return a result code, wait at most AT_TIMEOUT_MS and may be called from any thread. The caller zeroes the output;
// it is untouched when there is no answer or an error.

// Received signal strength index of 3GPP TS 27.007 8.5: 0 to 31, 99 unknown, others as the modem gives them.
result_t at_get_rssi(uint8_t *rssi);
result_t at_get_extended_signal_quality(ExtendedSignalQuality *quality);
// RESULT_ERROR, with a log line, for an operator name of more than 255 characters.
result_t at_get_operator_info(OperatorInfo *info);
// `oper` goes out as it stands, quotes and all, when oper_len is not 0; RESULT_ERROR for text that at_append_raw
// refuses.
result_t at_select_operator(const OperatorInfo *info);
// Fills one record after the other, in the modem's order; the first record with rat 0 ends the list. A line without a
// RAT is left out.
result_t at_get_serving_cells(std::span<ServingCellRecord, SERVING_CELLS> cells);
// The text behind the label of the serving cells, up to the end of the answer: whole lines, as many as fit.
// RESULT_REFUSED when there is no such label, or not one line fits.
result_t at_get_gtccinfo(std::span<char> text);
// RESULT_INCOMPLETE, with a log line, when the modem does not report cell figures or has none.
result_t at_get_cell_info(CellInfo *info);
