#include "ubusd_state.h"

#include <sys/random.h>

uint32_t unused_id(const bus_state &bus)
{
    for (;;) {
        uint32_t id = 0;
        if (getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id))
            continue; // interrupted
        if (id > UBUS_SYSTEM_OBJECT_MAX && !bus.clients.contains(id) && !bus.objects.contains(id) &&
            !bus.types.contains(id))
            return id;
    }
}
