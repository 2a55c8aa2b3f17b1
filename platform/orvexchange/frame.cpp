// A message begins with its byte order, type, flags and protocol version, and with three numbers: the length
// of its body, its serial and the length of its header fields. A field is a byte that tells which one it is,
// the signature of its value, and the value. Only these four types have fields in messages of the protocol's
// version: texts ("s", "o"), signatures ("g") and numbers ("u").

#include "frame.h"

#include <dbus/dbus.h>

#include <cstring>

namespace orv::exchange {
namespace {

constexpr unsigned char kVersion = 1;

constexpr std::size_t aligned(std::size_t offset, std::size_t to)
{
    return (offset + to - 1) / to * to;
}

/// Reads on in a header. Whatever would lie behind its end makes it fail from then on.
class HeaderReader {
public:
    HeaderReader(const char* bytes, std::size_t size)
        : m_bytes(reinterpret_cast<const unsigned char*>(bytes)), m_size(size)
    {
    }
    [[nodiscard]] bool has_failed() const { return m_has_failed; }
    [[nodiscard]] bool is_at_end() const { return m_has_failed || m_at >= m_size; }

    void align(std::size_t to) { m_at = aligned(m_at, to); }
    unsigned char byte()
    {
        const unsigned char* at = take(1);
        return at ? *at : 0;
    }
    std::uint32_t number()
    {
        align(4);
        const unsigned char* at = take(4);
        if (!at)
            return 0;
        const bool is_little = m_bytes[0] == DBUS_LITTLE_ENDIAN;
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < 4; ++i)
            value = value << 8U | at[is_little ? 3 - i : i];
        return value;
    }
    /// A text of that length and its NUL byte. Null when they are not there.
    const char* text(std::size_t length)
    {
        const unsigned char* at = length < m_size ? take(length + 1) : take(m_size + 1);
        return reinterpret_cast<const char*>(at);
    }

private:
    const unsigned char* take(std::size_t size)
    {
        if (m_has_failed || m_at > m_size || size > m_size - m_at) {
            m_has_failed = true;
            return nullptr;
        }
        const unsigned char* at = m_bytes + m_at;
        m_at += size;
        return at;
    }

    const unsigned char* m_bytes;
    std::size_t m_size;
    std::size_t m_at = 0;
    bool m_has_failed = false;
};

void copy_sender(FrameHeader& header, const char* text, std::size_t length)
{
    if (!text || *text != ':' || length >= sizeof header.sender)
        return;
    std::memcpy(header.sender, text, length);
    header.sender[length] = '\0';
    if (!dbus_validate_bus_name(header.sender, nullptr)) // libdbus would abort when told to write to it
        *header.sender = '\0';
}

/// False when there is nothing to be read after this field.
bool read_field(HeaderReader& reader, FrameHeader& header)
{
    reader.align(8);
    const unsigned char code = reader.byte();
    const std::size_t signature_size = reader.byte();
    const char* signature = reader.text(signature_size);
    if (!signature || signature_size != 1)
        return false;
    if (*signature == DBUS_TYPE_UINT32) {
        const std::uint32_t number = reader.number();
        if (code == DBUS_HEADER_FIELD_REPLY_SERIAL)
            header.reply_serial = number;
        return !reader.has_failed();
    }
    std::size_t length = 0;
    if (*signature == DBUS_TYPE_SIGNATURE)
        length = reader.byte();
    else if (*signature == DBUS_TYPE_STRING || *signature == DBUS_TYPE_OBJECT_PATH)
        length = reader.number();
    else
        return false;
    const char* text = reader.text(length);
    if (code == DBUS_HEADER_FIELD_SENDER)
        copy_sender(header, text, length);
    return text != nullptr;
}

} // namespace

std::optional<FrameSize> frame_size(const char* prefix)
{
    HeaderReader reader(prefix, kFramePrefix);
    const unsigned char order = reader.byte();
    (void)reader.byte(); // the type: those of the future are ignored, not refused
    (void)reader.byte(); // flags
    if ((order != DBUS_LITTLE_ENDIAN && order != DBUS_BIG_ENDIAN) || reader.byte() != kVersion)
        return std::nullopt;
    const std::size_t body = reader.number();
    (void)reader.number(); // serial
    const std::size_t fields = reader.number();
    if (fields > kMaxFrameHeader || body > DBUS_MAXIMUM_MESSAGE_LENGTH)
        return std::nullopt;
    const std::size_t header = aligned(kFramePrefix + fields, 8);
    return FrameSize{header, header + body};
}

FrameHeader read_frame_header(const char* bytes, std::size_t size)
{
    HeaderReader reader(bytes, size);
    FrameHeader header;
    (void)reader.byte(); // order
    header.type = reader.byte();
    header.wants_reply = header.type == DBUS_MESSAGE_TYPE_METHOD_CALL &&
                         (reader.byte() & DBUS_HEADER_FLAG_NO_REPLY_EXPECTED) == 0;
    reader.align(8); // version, length of the body
    header.serial = reader.number();
    (void)reader.number(); // length of the fields
    while (!reader.is_at_end() && read_field(reader, header)) {
    }
    return header;
}

FrameHeader frame_header_of(DBusMessage& message)
{
    FrameHeader header;
    header.type = dbus_message_get_type(&message);
    header.wants_reply = header.type == DBUS_MESSAGE_TYPE_METHOD_CALL && !dbus_message_get_no_reply(&message);
    header.serial = dbus_message_get_serial(&message);
    header.reply_serial = dbus_message_get_reply_serial(&message);
    if (const char* sender = dbus_message_get_sender(&message))
        copy_sender(header, sender, std::strlen(sender));
    return header;
}

} // namespace orv::exchange
