#include "message_send.h"

#include <climits>
#include <cstring>

#include <sms.h>

#include "calls.h"
#include "handler.h"
#include "log.h"
#include "request.h"

const struct blobmsg_policy policy_send_message[] = {
    {"dest", BLOBMSG_TYPE_STRING},
    {"type", BLOBMSG_TYPE_INT32},
    {"content", BLOBMSG_TYPE_STRING},
};

constexpr uint32_t SEND_TIMEOUT_MS = 10000;
constexpr uint32_t FAILED = UINT32_MAX; // -1 to clients
constexpr const char *NAME = "send_message";

int at_send_message(const char *pdu, int length)
{
    log_debug("waiting from 3s to 10s for IMS");
    return send_message_request(pdu, length, SEND_TIMEOUT_MS);
}

static int send_list(const struct sms_pdu *list)
{
    int result = 0;
    for (const struct sms_pdu *element = list; element; element = element->next) {
        CELMUX_LOG(LOG_DEBUG, "going to send at \n", NAME);
        CELMUX_LOG(LOG_DEBUG, "Alphabet: %d\n", NAME, element->alphabet);
        CELMUX_LOG(LOG_DEBUG, "PDU: %s\n", NAME, element->pdu);
        CELMUX_LOG(LOG_DEBUG, "Number Type: %d\n", NAME, element->number_type);
        CELMUX_LOG(LOG_DEBUG, "Number: %s\n", NAME, element->number);
        CELMUX_LOG(LOG_DEBUG, "Length: %d\n", NAME, element->length);
        print_sms_pdu(element);
        result |= at_send_message(element->pdu, element->length);
        CELMUX_LOG(LOG_DEBUG, "at_send_message return | %d\n", NAME, result);
    }
    return result;
}

static int send_reply(struct ubus_context *ctx, struct ubus_request_data *req, uint32_t result)
{
    int status = reply_result(ctx, req, result);
    CELMUX_LOG(LOG_DEBUG, "ubus_send_reply return [%d]\n", NAME, status);
    return status;
}

int handle_send_message(HANDLER_ARGUMENTS)
{
    const auto [dest, type, content_field] = parse_arguments(policy_send_message, msg);
    if (!dest || !type || !content_field) {
        CELMUX_LOG(LOG_DEBUG, "UBUS_STATUS_INVALID_ARGUMENT error\n", NAME);
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    if (call_waits(ctx, req, msg, SEND_TIMEOUT_MS))
        return UBUS_STATUS_OK;
    const char *content = blobmsg_get_string(content_field);
    CELMUX_LOG(LOG_DEBUG, "blobmsg_get_string [%s]\n", NAME, content);
    size_t length = strlen(content);
    struct sms_pdu *list = nullptr;
    int result = length > INT_MAX ? -1
                                  : encode_pdu(blobmsg_get_string(dest), number_or(type, 0), content,
                                               static_cast<int>(length), &list, 0);
    if (result != 0) {
        CELMUX_LOG(LOG_DEBUG, "encode_message fail\n", NAME);
        free_list(&list);
        return reply_result(ctx, req, FAILED);
    }
    result = send_list(list);
    free_list(&list);
    return send_reply(ctx, req, static_cast<uint32_t>(result));
}
