// libFuzzer target: the first byte chooses a parser, the rest is the modem's answer, or the band text of a caller.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "at_cell.h"
#include "at_rat.h"
#include "at_sim.h"
#include "fake_modem_link.h"

namespace {

void require(bool condition)
{
    if (!condition)
        std::abort();
}

template<size_t Size> void require_terminated(const char (&text)[Size])
{
    require(memchr(text, '\0', Size) != nullptr);
}

void serving_cells()
{
    ServingCellRecord cells[SERVING_CELLS] = {};
    at_get_serving_cells(cells);
    for (const ServingCellRecord &cell : cells) {
        require_terminated(cell.mcc);
        require_terminated(cell.mnc);
        require_terminated(cell.cellid);
        require_terminated(cell.band);
        require_terminated(cell.lac);
    }
}

void gtccinfo()
{
    char text[512] = "";
    at_get_gtccinfo(text);
    require_terminated(text);
}

void cell_info()
{
    CellInfo info = {};
    at_get_cell_info(&info);
    for (const auto *text : {&info.Mode, &info.BeamID, &info.CQI, &info.Power, &info.RANK, &info.DLMCS, &info.ULMCS})
        require_terminated(*text);
}

void operator_info()
{
    OperatorInfo info = {};
    at_get_operator_info(&info);
    require(!info.has_oper || strlen(info.oper) == info.oper_len);
    free(info.oper);
}

void signal_figures()
{
    uint8_t rssi = 0;
    ExtendedSignalQuality quality = {};
    at_get_rssi(&rssi);
    at_get_extended_signal_quality(&quality);
}

void current_bands()
{
    RatAndBand current = {};
    char bands[BANDS_SIZE] = "";
    at_get_current_rat_and_band(&current, bands);
    require_terminated(bands);
}

void sim_figures()
{
    PinRetries retries = {};
    int32_t pin = -1, puk = -1;
    uint8_t enabled = 0;
    at_get_remaining_pin_retries(nullptr, &retries);
    at_get_sim_remaining_attempts(&pin, &puk);
    at_get_sim_lock_status(&enabled);
    require(pin >= -1 && puk >= -1 && enabled <= 1);
}

// Whatever a caller writes, what goes out is one command.
void band_selection(const std::string &text)
{
    fake_link.answer_always("\r\nOK\r\n");
    RatSelection selection = {.act = 20, .has_pref1 = 0, .pref1 = 0, .has_pref2 = 0, .pref2 = 0, .bands = text.c_str()};
    RatAndBand both = {.rat = 20, .pref_act1 = 6, .pref_act2 = 3, .bands = text.c_str()};
    at_select_rat(&selection);
    at_select_rat_and_band(&both);
    for (const std::string &command : fake_link.sent) {
        require(command.size() < 1024 && command.ends_with('\r'));
        require(command.find_first_not_of("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz+=,\r") ==
                std::string::npos);
        require(command.find('\r') == command.size() - 1);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using Parser = void (*)();
    const Parser parsers[] = {serving_cells,  gtccinfo,      cell_info,  operator_info,
                              signal_figures, current_bands, sim_figures};
    if (size == 0)
        return 0;
    const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
    fake_link.reset();
    fake_link.answer_always(text);
    const size_t choice = data[0] % (std::size(parsers) + 1);
    if (choice == std::size(parsers))
        band_selection(text);
    else
        parsers[choice]();
    return 0;
}
