// Control message protocol: serialisation, parsing and the request/reply
// exchange of every command. The record, the data buffer, the stream buffer
// and the id counter are single process-wide instances guarded by the
// transport mutex that the callers hold.
#include "control_protocol/protocol_master.h"

#include <time.h>

#include <cstring>

#include "common/ks_platform.h"
#include "control_protocol/uvc_protocol_master.h"

namespace {

unsigned char pMsgData[PROTOCOL_MAX_DATA_SIZE];
unsigned char pMsgStreamData[PROTOCOL_STREAM_SIZE];
_struct_protocol_message gMsg = {0, 0, 0, 0, 0, 0, 0, 0, pMsgData};
_struct_protocol_message* const pGMsg = &gMsg;
_struct_protocol_functions pGFuncs = {default_send_data, default_receive_data,
                                      default_get_current_timestamp};
uint32_t gMsgId = 0;
thread_local protocol_flash_progress_fn tFlashProgress = nullptr;
thread_local void* tFlashProgressUser = nullptr;

// The 17 'x' that open the diagnostic payload, padded to 32 bytes.
const unsigned char kNakedPayload[32] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x',
                                         'x', 'x', 'x', 'x', 'x', 'x', '-', 'n', 'a', 'k', 'e',
                                         'd', '-', 'm', 'e', 's', 's', 'a', 'g', 'e', 0};

// Monotonic time of the platform clock in microseconds; -1 if it fails.
long long now_us() {
    struct timespec ts;
    if (ks_sys_clock_gettime(CLOCK_MONOTONIC, &ts) != 0) return -1;
    return static_cast<long long>(ts.tv_sec) * 1000000LL + ts.tv_nsec / 1000;
}

// Fills the header of a new request; the parameter and reserved words keep
// what they hold unless the caller sets them.
void build_request(uint32_t command, uint32_t length) {
    pGMsg->tag = PROTOCOL_MESSAGE_TAG;
    pGMsg->id = ++gMsgId;
    pGFuncs.timestamp(&pGMsg->timestamp);
    pGMsg->command = command;
    pGMsg->length = length;
}

// Sends the request in the record and waits for a block with the reply flag.
// 0 with the reply in the record, -1 when the receive fails, a block's length
// word exceeds the data buffer, or no reply comes within the time-out.
int exchange() {
    if (protocol_deal_message_description(pGMsg, pMsgStreamData) < 0) return -1;
    pGFuncs.send(pMsgStreamData);
    const long long start = now_us();
    for (;;) {
        if (pGFuncs.receive(pMsgStreamData) < 0) return -1;
        if (protocol_deal_data_stream(pGMsg, pMsgStreamData) == PROTOCOL_PARSE_BAD_LENGTH)
            return -1;
        if (message_check_reply(pGMsg)) return 0;
        // Blocks without the reply flag are skipped, but not for ever.
        const long long now = now_us();
        if (start < 0 || now < 0 || now - start >= PROTOCOL_REPLY_TIMEOUT_US) return -1;
    }
}

// One exchange expecting a reply to command; length_expected < 0 accepts any
// length.
int request(uint32_t command, uint32_t length, long long length_expected) {
    build_request(command, length);
    if (exchange() != 0) return -1;
    if (pGMsg->command != command) return -1;
    if (length_expected >= 0 && pGMsg->length != static_cast<uint32_t>(length_expected)) return -1;
    return 0;
}

bool sector_aligned(unsigned int addr, unsigned int len) {
    return (addr % PROTOCOL_FLASH_SECTOR_SIZE) == 0 && (len % PROTOCOL_FLASH_SECTOR_SIZE) == 0;
}

}  // namespace

_struct_protocol_message* protocol_message_record(void) {
    return pGMsg;
}

unsigned char* protocol_stream_buffer(void) {
    return pMsgStreamData;
}

uint32_t protocol_last_message_id(void) {
    return gMsgId;
}

extern "C" {

int protocol_master_init(const _struct_protocol_functions* functions) {
    pGMsg->data = pMsgData;
    pGFuncs.send =
        functions != nullptr && functions->send != nullptr ? functions->send : default_send_data;
    pGFuncs.receive = functions != nullptr && functions->receive != nullptr ? functions->receive
                                                                            : default_receive_data;
    pGFuncs.timestamp = functions != nullptr && functions->timestamp != nullptr
                            ? functions->timestamp
                            : default_get_current_timestamp;
    return 0;
}

int data_to_stream_16(unsigned char* stream, uint16_t value) {
    stream[0] = static_cast<unsigned char>(value >> 8);
    stream[1] = static_cast<unsigned char>(value);
    return 2;
}

int data_to_stream_32(unsigned char* stream, uint32_t value) {
    stream[0] = static_cast<unsigned char>(value >> 24);
    stream[1] = static_cast<unsigned char>(value >> 16);
    stream[2] = static_cast<unsigned char>(value >> 8);
    stream[3] = static_cast<unsigned char>(value);
    return 4;
}

uint16_t data_to_local_16(const unsigned char* stream) {
    return static_cast<uint16_t>((stream[0] << 8) | stream[1]);
}

uint32_t data_to_local_32(const unsigned char* stream) {
    return (static_cast<uint32_t>(stream[0]) << 24) | (static_cast<uint32_t>(stream[1]) << 16) |
           (static_cast<uint32_t>(stream[2]) << 8) | static_cast<uint32_t>(stream[3]);
}

int check_message_tag(const _struct_protocol_message* msg) {
    return msg != nullptr && msg->tag == PROTOCOL_MESSAGE_TAG ? 1 : 0;
}

void message_set_reply(_struct_protocol_message* msg) {
    if (msg != nullptr) msg->command |= PROTOCOL_REPLY_FLAG;
}

int message_check_reply(_struct_protocol_message* msg) {
    if (msg == nullptr) return 0;
    const int reply = (msg->command & PROTOCOL_REPLY_FLAG) != 0 ? 1 : 0;
    msg->command &= ~PROTOCOL_REPLY_FLAG;
    return reply;
}

int protocol_deal_message_description(_struct_protocol_message* msg, unsigned char* stream) {
    if (msg == nullptr || stream == nullptr) return -1;
    if (msg->length > PROTOCOL_MAX_DATA_SIZE || (msg->length > 0 && msg->data == nullptr))
        return -1;
    data_to_stream_32(stream + 0, msg->tag);
    data_to_stream_32(stream + 4, msg->id);
    data_to_stream_32(stream + 8, msg->timestamp);
    data_to_stream_32(stream + 12, msg->reserved);
    data_to_stream_32(stream + 16, msg->command);
    data_to_stream_32(stream + 20, msg->parameter);
    data_to_stream_32(stream + 24, msg->length);
    msg->checksum = get_data_checksum(msg->data, msg->length);
    data_to_stream_32(stream + 28, msg->checksum);
    if (msg->length > 0) std::memmove(stream + PROTOCOL_HEADER_SIZE, msg->data, msg->length);
    return PROTOCOL_HEADER_SIZE + static_cast<int>(msg->length);
}

int protocol_deal_data_stream(_struct_protocol_message* msg, const unsigned char* stream) {
    if (msg == nullptr || stream == nullptr) return -1;
    msg->tag = data_to_local_32(stream);
    if (msg->tag != PROTOCOL_MESSAGE_TAG) return -1;
    // The length word is checked before anything else of the block is taken.
    const uint32_t length = data_to_local_32(stream + 24);
    if (length > PROTOCOL_MAX_DATA_SIZE) return PROTOCOL_PARSE_BAD_LENGTH;
    if (length > 0 && msg->data == nullptr) return -1;
    msg->id = data_to_local_32(stream + 4);
    msg->timestamp = data_to_local_32(stream + 8);
    msg->reserved = data_to_local_32(stream + 12);
    msg->command = data_to_local_32(stream + 16);
    msg->parameter = data_to_local_32(stream + 20);
    msg->length = length;
    msg->checksum = data_to_local_32(stream + 28);
    if (length > 0) std::memmove(msg->data, stream + PROTOCOL_HEADER_SIZE, length);
    if (get_data_checksum(msg->data, length) != msg->checksum) return -1;
    return PROTOCOL_HEADER_SIZE + static_cast<int>(length);
}

int protocol_get_slaver_version(unsigned char* out) {
    if (out == nullptr) return -1;
    if (request(PROTOCOL_CMD_GET_VERSION, 0, PROTOCOL_VERSION_SIZE) != 0) return -1;
    std::memcpy(out, pGMsg->data, PROTOCOL_VERSION_SIZE);
    return 0;
}

int protocol_flash_read_page(unsigned int addr, unsigned char* page) {
    if (page == nullptr) return -1;
    pGMsg->parameter = addr & ~0xFFu;
    if (request(PROTOCOL_CMD_FLASH_READ_PAGE, 0, PROTOCOL_FLASH_PAGE_SIZE) != 0) return -1;
    std::memcpy(page, pGMsg->data, PROTOCOL_FLASH_PAGE_SIZE);
    return 0;
}

int protocol_flash_write_page(unsigned int addr, const unsigned char* page) {
    if (page == nullptr) return -1;
    pGMsg->parameter = addr & ~0xFFu;
    std::memcpy(pGMsg->data, page, PROTOCOL_FLASH_PAGE_SIZE);
    return request(PROTOCOL_CMD_FLASH_WRITE_PAGE, PROTOCOL_FLASH_PAGE_SIZE, -1);
}

int protocol_flash_erase_sector(unsigned int addr) {
    pGMsg->parameter = addr & ~0xFFFu;
    return request(PROTOCOL_CMD_FLASH_ERASE_SECTOR, 0, -1);
}

int protocol_update_eeprom(unsigned char value) {
    pGMsg->data[0] = value;
    return request(PROTOCOL_CMD_UPDATE_EEPROM, 1, -1);
}

int protocol_iic_read(unsigned char dev, unsigned short reg, unsigned char* buf, unsigned int len) {
    if (buf == nullptr) return -1;
    pGMsg->parameter = static_cast<uint32_t>(dev) * 65536u + reg;
    // The one little-endian field of the protocol.
    pGMsg->data[0] = static_cast<unsigned char>(len);
    pGMsg->data[1] = static_cast<unsigned char>(len >> 8);
    pGMsg->data[2] = static_cast<unsigned char>(len >> 16);
    pGMsg->data[3] = static_cast<unsigned char>(len >> 24);
    if (request(PROTOCOL_CMD_IIC_READ, 4, len) != 0) return -1;
    // The reply's length equals len and a parsed length never exceeds the
    // data buffer, so len bytes are there.
    std::memcpy(buf, pGMsg->data, len);
    return 0;
}

int protocol_iic_write(unsigned char dev, unsigned short reg, const unsigned char* data,
                       unsigned int len) {
    if (data == nullptr || len > PROTOCOL_MAX_DATA_SIZE) return -1;
    pGMsg->parameter = static_cast<uint32_t>(dev) * 65536u + reg;
    if (len > 0) std::memmove(pGMsg->data, data, len);
    return request(PROTOCOL_CMD_IIC_WRITE, len, -1);
}

int protocol_set_gpio(unsigned char pin, unsigned char value) {
    pGMsg->data[0] = 0x00;
    pGMsg->data[1] = pin;
    pGMsg->data[2] = value;
    return request(PROTOCOL_CMD_GPIO, 3, -1);
}

int protocol_get_gpio(unsigned char pin, unsigned char* value) {
    if (value == nullptr) return -1;
    pGMsg->data[0] = 0x01;
    pGMsg->data[1] = pin;
    if (request(PROTOCOL_CMD_GPIO, 2, 1) != 0) return -1;
    *value = pGMsg->data[0];
    return 0;
}

int protocol_set_gpios(const unsigned char* pins, const unsigned char* values, unsigned char n) {
    if (n > 0 && (pins == nullptr || values == nullptr)) return -1;
    // 2n + 1 bytes must fit the data buffer (and the 8-bit length kept here).
    if (2u * n + 1u > 255u) return -1;
    pGMsg->data[0] = 0x00;
    for (unsigned i = 0; i < n; ++i) {
        pGMsg->data[1 + 2 * i] = pins[i];
        pGMsg->data[2 + 2 * i] = values[i];
    }
    return request(PROTOCOL_CMD_GPIO, (2u * n + 1u) & 0xFFu, -1);
}

int protocol_get_gpios(const unsigned char* pins, unsigned char* values, unsigned char n) {
    if (n > 0 && (pins == nullptr || values == nullptr)) return -1;
    pGMsg->data[0] = 0x01;
    if (n > 0) std::memcpy(pGMsg->data + 1, pins, n);
    if (request(PROTOCOL_CMD_GPIO, n + 1u, n) != 0) return -1;
    if (n > 0) std::memcpy(values, pGMsg->data, n);
    return 0;
}

int protocol_get_status(unsigned char* status) {
    if (status == nullptr) return -1;
    if (request(PROTOCOL_CMD_GET_STATUS, 0, 1) != 0) return -1;
    *status = pGMsg->data[0];
    return 0;
}

int protocol_get_IMU(unsigned char* records) {
    if (records == nullptr) return -1;
    if (request(PROTOCOL_CMD_GET_IMU, 0, -1) != 0) return -1;
    const uint32_t count = pGMsg->length / PROTOCOL_IMU_RECORD_SIZE;
    if (count > 0) std::memcpy(records, pGMsg->data, count * PROTOCOL_IMU_RECORD_SIZE);
    return static_cast<int>(count);
}

int protocol_set_asic(unsigned char value) {
    pGMsg->data[0] = value;
    return request(PROTOCOL_CMD_SET_ASIC, 1, -1);
}

int protocol_get_reset_count(unsigned int* count) {
    if (count == nullptr) return -1;
    if (request(PROTOCOL_CMD_GET_RESET_COUNT, 0, 4) != 0) return -1;
    *count = data_to_local_32(pGMsg->data);
    return 0;
}

int protocol_write_flash_data(unsigned int addr, const unsigned char* data, unsigned int len) {
    if (!sector_aligned(addr, len)) return -1;
    if (len == 0) return 0;
    if (data == nullptr) return -1;
    for (unsigned int sector = 0; sector < len; sector += PROTOCOL_FLASH_SECTOR_SIZE) {
        if (protocol_flash_erase_sector(addr + sector) != 0) return -1;
        for (unsigned int page = 0; page < PROTOCOL_FLASH_SECTOR_SIZE;
             page += PROTOCOL_FLASH_PAGE_SIZE) {
            if (protocol_flash_write_page(addr + sector + page, data + sector + page) != 0)
                return -1;
            if (tFlashProgress != nullptr)
                tFlashProgress(sector + page + PROTOCOL_FLASH_PAGE_SIZE, len, tFlashProgressUser);
        }
    }
    return 0;
}

void protocol_set_flash_progress(protocol_flash_progress_fn fn, void* user) {
    tFlashProgress = fn;
    tFlashProgressUser = user;
}

int protocol_read_flash_data(unsigned int addr, unsigned char* data, unsigned int len) {
    if (!sector_aligned(addr, len)) return -1;
    if (len == 0) return 0;
    if (data == nullptr) return -1;
    for (unsigned int page = 0; page < len; page += PROTOCOL_FLASH_PAGE_SIZE) {
        if (protocol_flash_read_page(addr + page, data + page) != 0) return -1;
    }
    return 0;
}

int send_naked_message(int with_payload, int build) {
    if (build == 1) {
        const uint32_t length = with_payload != 0 ? sizeof kNakedPayload : 0;
        if (length > 0) std::memcpy(pGMsg->data, kNakedPayload, length);
        build_request(PROTOCOL_CMD_GET_VERSION, length);
    }
    if (protocol_deal_message_description(pGMsg, pMsgStreamData) < 0) return -1;
    return pGFuncs.send(pMsgStreamData);
}

int receive_naked_message(unsigned char** out) {
    const int result = pGFuncs.receive(pMsgStreamData);
    if (out != nullptr) *out = result != 0 ? pMsgStreamData : nullptr;
    return result;
}

}  // extern "C"
