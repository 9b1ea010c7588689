#include "queues.h"

#include "waiting.h"

PoolQueue at_tx_queue;
PoolQueue at_rx_queue;
PoolQueue resp_queue;
PoolQueue incomming_sms_queue;

void stop_all()
{
    end_sleeps();
    for (PoolQueue *queue : {&at_tx_queue, &at_rx_queue, &resp_queue, &incomming_sms_queue})
        pool_queue_wake(queue);
}
