// Any bytes as a package's file and as its pending lines. What is accepted must read back the same once written.

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "../../platform/uci/internal.h"

static uci_loaded_package *parse(uci_context *ctx, const char *data, size_t size)
{
    // Exactly as large as the text, so that one byte too far is seen.
    auto *buffer = static_cast<char *>(malloc(size ? size : 1));
    uci_loaded_package *p = package_create(ctx, "p", "/nowhere");
    if (!buffer || !p)
        abort();
    if (size)
        memcpy(buffer, data, size);
    int err = config_parse(*p, buffer, size);
    free(buffer);
    if (err == UCI_OK)
        return p;
    package_free(p);
    return nullptr;
}

static void check_round_trip(uci_context *ctx, uci_loaded_package *p)
{
    if (!number_anonymous_sections(*p))
        abort();
    uci_text first = {};
    uci_text second = {};
    config_write(*p, first);
    uci_loaded_package *again = parse(ctx, first.data, first.size);
    if (!again)
        abort();
    config_write(*again, second);
    if (first.size != second.size || memcmp(first.data, second.data, first.size) != 0)
        abort();
    package_free(again);
    text_free(first);
    text_free(second);
}

static void check_pending(uci_loaded_package *p, const char *data, size_t size)
{
    uci_text compacted = {};
    pending_compact("p", {data, size}, compacted);
    text_free(compacted);
    auto *buffer = static_cast<char *>(malloc(size ? size : 1));
    if (!buffer)
        abort();
    if (size)
        memcpy(buffer, data, size);
    bool any = false;
    if (pending_apply(*p, buffer, size, any) != UCI_OK)
        abort();
    free(buffer);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *text = reinterpret_cast<const char *>(data);
    // A zero byte is in neither grammar: it parts the file from the pending lines.
    const void *zero = size ? memchr(text, 0, size) : nullptr;
    size_t file_size = zero ? static_cast<size_t>(static_cast<const char *>(zero) - text) : size;
    uci_context *ctx = uci_alloc_context();
    if (!ctx)
        abort();
    if (uci_loaded_package *p = parse(ctx, text, file_size)) {
        check_round_trip(ctx, p);
        if (zero)
            check_pending(p, text + file_size + 1, size - file_size - 1);
        check_round_trip(ctx, p);
        package_free(p);
    }
    uci_free_context(ctx);
    return 0;
}
