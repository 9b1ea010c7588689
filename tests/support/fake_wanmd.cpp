#include "fake_wanmd.h"

#include "wanmd.h"

FakeWanmd fake_wanmd;
WanmdSocket celmuxd_wanmd_sockfd = {-1, 0, {}};

void FakeWanmd::reset()
{
    *this = FakeWanmd();
}

static int note(const std::string &notice)
{
    fake_wanmd.notices.push_back(notice);
    if (fake_wanmd.on_notice)
        fake_wanmd.on_notice(notice);
    return 0;
}

int celmuxd_wanmd_socket_init()
{
    return 0;
}

int at_wanmd_set_sim_status(uint8_t ready)
{
    return note(ready ? "sim_ready" : "sim_absent");
}

int at_wanmd_set_apn(int32_t family)
{
    return note(family == 0 ? "apn_ipv4" : family == 2 ? "apn_ipv6" : "apn_ipv4v6");
}

void at_wanmd_recall()
{
    note("re_call");
}

int wanmd_control(uint8_t enable)
{
    return note("control " + std::to_string(enable));
}
