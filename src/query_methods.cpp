#include "query_methods.h"
#include "handler.h"
#include "log.h"
#include "result.h"

#include <cstring>

int reply_string_query(struct ubus_context *ctx, struct ubus_request_data *req, const StringQuery &row)
{
    char text[QUERY_TEXT_MAX] = "";
    result_t result = row.get(std::span(text, row.size));
    reply_begin();
    reply_add_u32("result", result);
    if (result == RESULT_OK)
        reply_add_string(row.member, text);
    return reply_send(ctx, req);
}

int handle_get_pdp_contexts(HANDLER_ARGUMENTS)
{
    char text[512] = "";
    result_t result = at_get_pdp_contexts(std::span<char>(text));
    reply_begin();
    reply_add_u32("result", result);
    if (result == RESULT_OK)
        print_out("get_pdp_contexts ==%d   %s==\n", static_cast<int>(strlen(text)), text);
    reply_add_string("pdp_contexts", result == RESULT_OK ? text : "");
    return reply_send(ctx, req);
}

int handle_get_caller_id(HANDLER_ARGUMENTS)
{
    char number[17] = ""; // 16 characters at most, terminated
    reply_begin();
    result_t result = at_get_caller_id(std::span<char>(number));
    reply_add_u32("result", result);
    reply_add_string("cid", number);
    return reply_send(ctx, req);
}
