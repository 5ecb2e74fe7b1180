// The control message protocol between the host (master) and the camera's
// USB controller (slave).
//
// A message is a 32-byte header of eight big-endian 32-bit words (tag, id,
// timestamp, reserved, command, parameter, length, checksum) followed by up
// to 256 data bytes. The host keeps one message record, one 256-byte data
// buffer and one 320-byte stream buffer for the whole process, and reaches
// the transport only through three registered functions (send, receive,
// timestamp). None of the functions below is re-entrant: callers hold the
// transport mutex (lock_uvc_protocol_mutex) around every call.
//
// Each command function performs one exchange: it builds the header, sends
// the serialised message once and reads blocks until one carries the reply
// flag. A failing receive ends the exchange with -1; so does a block whose
// length word exceeds the data buffer (nothing of it is copied), and so does
// a device that answers for PROTOCOL_REPLY_TIMEOUT_US of the platform clock
// without ever setting the reply flag. A reply whose command (or, where a
// command expects one, length) differs from the request's gives -1.
#ifndef KS_PROTOCOL_MASTER_H
#define KS_PROTOCOL_MASTER_H

#include <stdint.h>

#include "common/ks_export.h"

#define PROTOCOL_MESSAGE_TAG 0x01020304u
#define PROTOCOL_HEADER_SIZE 32
#define PROTOCOL_MAX_DATA_SIZE 256
#define PROTOCOL_STREAM_SIZE 320
#define PROTOCOL_REPLY_FLAG 0x80000000u
#define PROTOCOL_FLASH_PAGE_SIZE 256
#define PROTOCOL_FLASH_SECTOR_SIZE 4096
#define PROTOCOL_IMU_RECORD_SIZE 16
#define PROTOCOL_VERSION_SIZE 32
// How long an exchange waits for a block with the reply flag (platform clock).
#define PROTOCOL_REPLY_TIMEOUT_US 5000000LL

// Result of protocol_deal_data_stream for a block whose length word exceeds
// the data buffer.
#define PROTOCOL_PARSE_BAD_LENGTH (-2)

enum {
    PROTOCOL_CMD_GET_VERSION = 1,
    PROTOCOL_CMD_FLASH_READ_PAGE = 2,
    PROTOCOL_CMD_FLASH_WRITE_PAGE = 3,
    PROTOCOL_CMD_FLASH_ERASE_SECTOR = 4,
    PROTOCOL_CMD_UPDATE_EEPROM = 5,
    PROTOCOL_CMD_IIC_READ = 6,
    PROTOCOL_CMD_IIC_WRITE = 7,
    PROTOCOL_CMD_GPIO = 10,
    PROTOCOL_CMD_GET_STATUS = 11,
    PROTOCOL_CMD_GET_IMU = 13,
    PROTOCOL_CMD_SET_ASIC = 14,
    PROTOCOL_CMD_GET_RESET_COUNT = 15,
};

// The host's message record: the header words in wire order and the data
// buffer they describe.
typedef struct _struct_protocol_message {
    uint32_t tag;
    uint32_t id;
    uint32_t timestamp;
    uint32_t reserved;
    uint32_t command;
    uint32_t parameter;
    uint32_t length;
    uint32_t checksum;
    unsigned char* data;
} _struct_protocol_message;

// The transport's functions, in registration order. send takes the stream
// buffer; receive fills it and is negative on failure; timestamp writes the
// value carried in the header's timestamp word.
typedef int (*protocol_send_func)(unsigned char* stream);
typedef int (*protocol_receive_func)(unsigned char* stream);
typedef int (*protocol_timestamp_func)(unsigned int* timestamp);

typedef struct _struct_protocol_functions {
    protocol_send_func send;
    protocol_receive_func receive;
    protocol_timestamp_func timestamp;
} _struct_protocol_functions;

KS_BEGIN_DECLS

// Points the record at the data buffer and installs the three functions;
// a null table or a null entry gets the default that does nothing and
// returns 0. Returns 0.
KS_API int protocol_master_init(const _struct_protocol_functions* functions);

// The process-wide record and stream buffer, and the id the last request
// carried (0 before the first). For diagnostics inside the library and its
// tests; not exported. Only touch them under the transport mutex.
_struct_protocol_message* protocol_message_record(void);
unsigned char* protocol_stream_buffer(void);
uint32_t protocol_last_message_id(void);

// ---- byte orders: most significant byte first ----
KS_API int data_to_stream_16(unsigned char* stream, uint16_t value);
KS_API int data_to_stream_32(unsigned char* stream, uint32_t value);
KS_API uint16_t data_to_local_16(const unsigned char* stream);
KS_API uint32_t data_to_local_32(const unsigned char* stream);

// 1 when the record's tag is 0x01020304, else 0.
KS_API int check_message_tag(const _struct_protocol_message* msg);
// Sets the reply flag (bit 31) of the record's command.
KS_API void message_set_reply(_struct_protocol_message* msg);
// Returns the reply flag (1 or 0) and clears it in the record.
KS_API int message_check_reply(_struct_protocol_message* msg);

// Unsigned sum of the bytes, 32-bit with wrap-around; 0 for no data.
KS_API uint32_t get_data_checksum(const unsigned char* data, uint32_t length);

// Serialises the record into stream (at least 32 + length bytes): header
// words big-endian, the checksum of the data computed and stored in the
// record too, then the data. Returns 32 + length; -1 for a null pointer or a
// length beyond the data buffer.
KS_API int protocol_deal_message_description(_struct_protocol_message* msg, unsigned char* stream);
// Parses a received block (320 bytes) into the record. Returns 32 + length
// when the checksum matches; -1 for a null pointer, a bad tag (only the tag
// word of the record changes) or a checksum mismatch (the record is updated
// all the same); PROTOCOL_PARSE_BAD_LENGTH when the length word exceeds the
// data buffer (only the tag changes, nothing is copied).
KS_API int protocol_deal_data_stream(_struct_protocol_message* msg, const unsigned char* stream);

// ---- commands: 0 on success, -1 on any failure unless said otherwise ----
// The controller's firmware version: 32 bytes into out.
KS_API int protocol_get_slaver_version(unsigned char* out);
// One 256-byte flash page at addr (low 8 bits cleared).
KS_API int protocol_flash_read_page(unsigned int addr, unsigned char* page);
KS_API int protocol_flash_write_page(unsigned int addr, const unsigned char* page);
// Erases the 4096-byte sector at addr (low 12 bits cleared).
KS_API int protocol_flash_erase_sector(unsigned int addr);
// Asks the controller to copy flash EPR slot value into the EEPROM.
KS_API int protocol_update_eeprom(unsigned char value);
// I2C transfer of len bytes at device dev (8-bit address with the read/write
// bit), register reg. The read's request carries len least significant byte
// first and accepts only a reply of exactly len bytes. The write refuses a
// null data pointer or more than 256 bytes before sending.
KS_API int protocol_iic_read(unsigned char dev, unsigned short reg, unsigned char* buf,
                             unsigned int len);
KS_API int protocol_iic_write(unsigned char dev, unsigned short reg, const unsigned char* data,
                              unsigned int len);
KS_API int protocol_set_gpio(unsigned char pin, unsigned char value);
KS_API int protocol_get_gpio(unsigned char pin, unsigned char* value);
// n pins at once; set refuses more than 127 pairs (they would not fit one
// message).
KS_API int protocol_set_gpios(const unsigned char* pins, const unsigned char* values,
                              unsigned char n);
KS_API int protocol_get_gpios(const unsigned char* pins, unsigned char* values, unsigned char n);
KS_API int protocol_get_status(unsigned char* status);
// Copies the whole 16-byte IMU records of the reply into records (which must
// hold 256 bytes); returns their count (0 for none), -1 on failure.
KS_API int protocol_get_IMU(unsigned char* records);
// 1 runs the ASIC, 0 holds it in reset.
KS_API int protocol_set_asic(unsigned char value);
KS_API int protocol_get_reset_count(unsigned int* count);

// Multi-page flash transfers: addr and len multiples of 4096 (else -1,
// nothing sent); len 0 gives 0. The write erases each sector and then writes
// its 16 pages in ascending order; the read reads pages in ascending order.
// The first failure returns -1 (sectors already written stay written).
KS_API int protocol_write_flash_data(unsigned int addr, const unsigned char* data,
                                     unsigned int len);
// Observer of the calling thread's multi-page flash writes: called after each
// page written with the bytes written so far and len; null turns it off.
// Per thread, because the exchange runs on the caller's thread.
typedef void (*protocol_flash_progress_fn)(unsigned int written, unsigned int total, void* user);
KS_API void protocol_set_flash_progress(protocol_flash_progress_fn fn, void* user);
KS_API int protocol_read_flash_data(unsigned int addr, unsigned char* data, unsigned int len);

// Diagnostic pair. With build 1 a fresh version request is built (length 0,
// or with with_payload a fixed 32-byte payload starting with 17 'x'); any
// other build re-sends the record as it stands. Returns the send result.
KS_API int send_naked_message(int with_payload, int build);
// Receives one raw block into the stream buffer; *out is the stream buffer
// when the receive result is non-zero, else null. Returns the receive result.
KS_API int receive_naked_message(unsigned char** out);

KS_END_DECLS

#endif
