#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace modemsim {

/// Everything of the modem that a profile can set; the defaults are an FM160 with a ready SIM on an LTE cell.
/// Profiles and `modemsim ctl set` use the names of the members.

struct Identity {
    std::string manufacturer = "Fibocom Wireless Inc.";
    std::string model = "FM160-CN";
    std::string revision = "89614.1000.00.04.01.02";
    std::string package = "89614.1000.00.04.01.02_5000.0000.050.000.046_E41";
    std::string hardware = "Hardware version: V1.0.6";
    std::string imei = "860000000000009";
    std::string serial = "FP62XX000F";
};

enum class SimState { ready, absent, pin, puk, blocked };

struct Sim {
    SimState state = SimState::ready;
    bool lock = false; ///< the card asks for its PIN at the next start
    std::string pin = "1234";
    std::string puk = "12345678";
    int pin_left = 3;
    int puk_left = 10;
    int pin2_left = 3;
    int puk2_left = 10;
    std::string imsi = "460010000000001";
    std::string iccid = "89860000000000000009";
    std::string msisdn = "+41000000000";
    std::string smsc = "+8613800100500";
};

enum class CellKind { none, lte, nr, endc, umts };
enum class Registration { off = 0, home = 1, searching = 2, denied = 3, roaming = 5 };

/// Levels are in dBm and dB. A UMTS cell keeps its RSCP in rsrp and its Ec/No in rsrq.
struct Cell {
    unsigned tac = 0x4F50;
    uint64_t cellid = 0x52AB337;
    unsigned arfcn = 0x672;
    unsigned pci = 0x1E4;
    int band = 103;
    int bandwidth = 100;
    int rsrp = -78;
    int rsrq = -8;
    int sinr = 22;
};

struct Operator {
    int stat = 1; ///< 1 available, 2 current, 3 forbidden (3GPP TS 27.007 7.3)
    std::string name;
    std::string brief;
    std::string numeric;
    int act = 7;
};

struct Network {
    Registration registration = Registration::home; ///< what the network grants once the modem asks
    CellKind cell = CellKind::lte;                  ///< the best cell at this place
    std::string mcc = "460";
    std::string mnc = "01";
    std::string name = "CHN-UNICOM";
    std::string brief = "UNICOM";
    int rssi = -59;
    Cell lte;
    Cell nr = {0x4F50, 0x101EA212F, 0x7EFAE, 0x290, 5041, 100, -70, -11, 33};
    Cell umts = {0x5D4, 0x1BC7511, 0x2A05, 0xDB, 8, 5, -80, -6, 0};
    std::vector<Cell> neighbours = {{0, 0, 0x672, 0x190, 0, 0, -97, -19, 0}, {0, 0, 0x64, 0xEA, 0, 0, -109, -15, 0}};
    std::vector<Operator> operators = {{2, "CHN-UNICOM", "UNICOM", "46001", 7},
                                       {1, "CHINA MOBILE", "CMCC", "46000", 12},
                                       {1, "CHN-CT", "CT", "46011", 7}};
};

/// What a restart of the modem loses.
struct Settings {
    bool echo = true;
    int cmee = 1;
    int cmgf = 0;
    std::array<int, 5> cnmi = {2, 1, 0, 0, 0};
    std::array<std::string, 3> cpms = {"SM", "SM", "SM"};
    int creg = 0;
    int cgreg = 0;
    int cereg = 0;
    int c5greg = 0;
    int cops_mode = 0;
    int cops_format = 0;
    int clip = 1;
    int cellinfo = 1;
    int pcm_loopback = 0;
    int cfun = 1;
};

struct Context {
    std::string type = "IPV4V6";
    std::string apn;
    int auth = 0;
    std::string user;
    std::string password;
    bool active = false;
};

/// What the modem keeps over a restart.
struct Kept {
    int pcm_out = 1;
    int msmpd = 1;
    int simswap = 0;
    int ims = 1;
    int interface_mode = 1;
    int roaming = 1;
    int sa = 1;
    int rat = 20;
    int pref1 = 6;
    int pref2 = 3;
    std::vector<int> bands = {1, 8, 101, 103, 105, 108, 134, 138, 139, 140, 141, 501, 5028, 5041, 5078, 5079};
    std::map<int, Context> contexts = {{1, {"IPV4V6", "internet", 0, "", "", false}},
                                       {2, {"IPV4V6", "ims", 0, "", "", false}}};
};

enum class Refusal { cme14, error, queue };
/// Where reports may stand: between answers, between the lines of one as well, or at any byte.
enum class Reports { between, lines, bytes };
enum class NoSimStyle { cms310, fm160 };

/// Times in ms and the ways in which modems differ.
struct Behaviour {
    int64_t latency_ms = 0;
    std::map<std::string, int64_t> delays; ///< further time of the commands that begin so
    int64_t scan_ms = 300;
    Refusal scan_refusal = Refusal::cme14;
    Reports reports = Reports::between;
    NoSimStyle no_sim = NoSimStyle::cms310;
    int64_t restart_delay_ms = 50; ///< from the answer until the port goes away
    int64_t restart_ms = 1500;     ///< how long the port is away
    int64_t sim_ready_ms = 200;    ///< from the return of the port or the card until +SIM READY
    int64_t register_ms = 300;
    int64_t sms_send_ms = 50;
    int64_t ring_interval_ms = 3000;
    bool address = true; ///< the network gives active contexts an address
    std::string ipv4 = "10.9.99.100";
    std::string ipv6 = "32.1.13.184.0.30.4.217.0.0.0.0.0.0.0.1";
    int sms_capacity = 20;
    int sms_send_error = 0; ///< not 0: every submission ends with this +CMS ERROR
    bool serial_numbers = false;
};

struct State {
    Identity identity;
    Sim sim;
    Network network;
    Settings settings;
    Settings after_restart = settings_after_restart();
    Kept kept;
    Behaviour behaviour;

    static Settings settings_after_restart()
    {
        Settings settings;
        settings.cnmi = {0, 0, 0, 0, 0};
        settings.cpms = {"ME", "ME", "ME"};
        settings.cellinfo = 0;
        return settings;
    }
};

} // namespace modemsim
