#include "message_array.h"

#include <cstdlib>
#include <cstring>

constexpr uint32_t FIRST_CAPACITY = 16;

MessageArray message_array;
pthread_mutex_t message_array_mutex = PTHREAD_MUTEX_INITIALIZER;

int array_append(MessageArray *array, StoredMessage *message)
{
    if (!array->present || array->count >= MOST_MESSAGES || array->bytes + message->size > MOST_MESSAGE_BYTES)
        return -1;
    if (array->count == array->capacity) {
        uint32_t capacity = array->capacity ? array->capacity * 2 : FIRST_CAPACITY;
        void *larger = realloc(array->items, capacity * sizeof *array->items);
        if (!larger)
            return -1;
        array->items = static_cast<StoredMessage **>(larger);
        array->capacity = capacity;
    }
    array->items[array->count++] = message;
    array->bytes += message->size;
    return 0;
}

void array_remove(MessageArray *array, uint32_t position)
{
    array->bytes -= array->items[position]->size;
    free(array->items[position]);
    array->count--;
    memmove(array->items + position, array->items + position + 1, (array->count - position) * sizeof *array->items);
    array->file.current = false;
}

void array_replace(MessageArray *array, uint32_t position, StoredMessage *message)
{
    array->bytes += message->size - array->items[position]->size;
    free(array->items[position]);
    array->items[position] = message;
    if (position < array->file.count)
        array->file.current = false;
}

void array_clear(MessageArray *array)
{
    for (uint32_t i = 0; i < array->count; i++)
        free(array->items[i]);
    array->count = 0;
    array->bytes = 0;
    array->present = true;
    array->file.current = false;
}

void array_free(MessageArray *array)
{
    array_clear(array);
    free(array->items);
    *array = {};
}
