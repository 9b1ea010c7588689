// Answers to AT+GTCCINFO? of both chip families, for the parsers and for what clients see of them.
#pragma once

#include <string>

#include "fake_modem_link.h"

// Qualcomm based: a label before each group, everything in hexadecimal.
inline const std::string lte_fm160 = ok_answer(
    {"+GTCCINFO:", "LTE service cell:", "1,4,460,01,4F50,52AB337,672,1E4,103,100,44,63,63,24", "LTE neighbor cell:"});
inline const std::string nr_qualcomm =
    "+GTCCINFO: \r\nNR service cell: \r\n1,9,310,260,A2E700,101EA212F,7EFAE,290,5041,100,113,87,87,64\r\n\r\nOK";
inline const std::string en_dc_qualcomm =
    ok_answer({"+GTCCINFO: ", "LTE-NR EN-DC service cell: ", "1,4,460,01,4F50,52AB337,672,1E4,103,100,44,63,63,24",
               "1,9,460,01,,,7EFAE,290,5078,100,113,87,87,64", "LTE neighbor cell:", "2,4,,,,,189C,190,,24,24,2"});
inline const std::string umts_qualcomm = ok_answer(
    {"+GTCCINFO:", "UMTS service cell:", "1,2,262,02,5D4,1BC7511,2A3E,1F4,8,20,60,1,30,0,39", "UMTS neighbor cell:"});
// MediaTek based: no labels, padded numbers, sentinels.
inline const std::string lte_fm350 = ok_answer({"+GTCCINFO:", "1,4,250,2,81B3,004EA1009,1424,280,103,75,-1,33,33,17",
                                                "", "2,4,,,FFFF,00FFFFFFF,3048,454,,25,25,14"});
inline const std::string en_dc_fm350 =
    ok_answer({"+GTCCINFO:", "1,4,001,01,ABCD,00ABCDEF0,1850,123,103,100,4,44,44,13",
               "1,9,,,FFFFFFF,00FFFFFFF,645312,130,5078,400,2,49,49,69", "2,4,,,FFFF,00FFFFFFF,1850,137,,41,41,71",
               "+GTCAINFO:", "PCC:5078,130,645312,400,400,2,1,1,3,-107", "SCC 1:2,1,101,144,525,75,50,1,1,3,3,-95"});
inline const std::string no_cell = "+GTCCINFO: \r\n\r\nOK\r\n";
