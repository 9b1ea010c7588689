#include "ubusd_message.h"

#include <algorithm>

namespace {

// Whether the payload is a list of attributes and nothing else.
bool well_formed(blob_attr *blob)
{
    if (blob_is_extended(blob) || blob_id(blob) != 0)
        return false;
    size_t left = blob_len(blob);
    auto *pos = static_cast<blob_attr *>(blob_data(blob));
    for (; left > 0; left -= blob_pad_len(pos), pos = blob_next(pos)) {
        if (!blob_fits(pos, left))
            return false;
    }
    return true;
}

} // namespace

message_reader::outcome message_reader::take(std::span<const uint8_t> &input, bus_message &message)
{
    auto take_until = [&](size_t size) {
        size_t count = std::min(size - bytes.size(), input.size());
        bytes.insert(bytes.end(), input.begin(), input.begin() + static_cast<std::ptrdiff_t>(count));
        input = input.subspan(count);
        return bytes.size() == size;
    };
    if (bytes.size() < message_prefix_size && !take_until(message_prefix_size))
        return outcome::incomplete;
    size_t size = blob_raw_len(reinterpret_cast<blob_attr *>(bytes.data() + message_header_size));
    if (bytes[0] != 0 || size < sizeof(blob_attr) || size > UBUS_MAX_MSGLEN)
        return outcome::malformed;
    if (!take_until(message_header_size + size))
        return outcome::incomplete;
    message.header = read_message_header(bytes.data());
    message.blob.assign(bytes.begin() + message_header_size, bytes.end());
    bytes.clear();
    if (bytes.capacity() > 65536)
        bytes.shrink_to_fit();
    return well_formed(message.attr()) ? outcome::complete : outcome::malformed;
}

blob_builder::blob_builder()
{
    ok = blob_buf_init(&buf, 0) == 0;
}

blob_builder::~blob_builder()
{
    blob_buf_free(&buf);
}

blob_builder &blob_builder::put_u32(ubus_msg_attr id, uint32_t value)
{
    ok = ok && blob_put_u32(&buf, id, value);
    return *this;
}

blob_builder &blob_builder::put_string(ubus_msg_attr id, const char *text)
{
    ok = ok && blob_put_string(&buf, id, text);
    return *this;
}

blob_builder &blob_builder::put(ubus_msg_attr id, const void *data, size_t size)
{
    ok = ok && blob_put(&buf, id, data, static_cast<unsigned int>(size));
    return *this;
}

std::span<const uint8_t> blob_builder::bytes() const
{
    if (!ok || blob_raw_len(buf.head) > UBUS_MAX_MSGLEN)
        return {};
    return {reinterpret_cast<const uint8_t *>(buf.head), blob_raw_len(buf.head)};
}

std::vector<uint8_t> make_message(const message_header &header, std::span<const uint8_t> blob)
{
    std::vector<uint8_t> message(message_header_size + blob.size());
    write_message_header(message.data(), header);
    std::copy(blob.begin(), blob.end(), message.begin() + message_header_size);
    return message;
}
