// The state that crosses threads; celmux.h says who writes and who reads what.

#include "celmux.h"

PoolQueue at_tx_queue;
PoolQueue at_rx_queue;
PoolQueue resp_queue;
PoolQueue incomming_sms_queue;

std::atomic<uint8_t> running{1};
std::atomic<uint8_t> t_processor_ready{0};
std::atomic<uint8_t> t_listener_ready{0};
std::atomic<uint8_t> t_sender_ready{0};
std::atomic<uint8_t> t_requester_ready{0};
std::atomic<uint8_t> g_scanning{0};
std::atomic<uint8_t> g_scan_began{0};
std::atomic<uint8_t> g_connecting{0};
std::atomic<uint8_t> ip_family_updated{0};
std::atomic<int32_t> g_ip_family{-1};
