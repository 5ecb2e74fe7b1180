// The extension-unit transport of the control protocol.
//
// Control traffic travels as 320-byte blocks through control 1 of extension
// unit 3 of the camera's video node (UVCIOC_CTRL_QUERY with SET_CUR to send,
// GET_CUR to receive). One descriptor (uvc_fd) and one mutex serve the whole
// process: an exchange selects the camera with set_cur_uvc_fd, takes the
// mutex, runs one protocol call and releases the mutex.
#ifndef KS_UVC_PROTOCOL_MASTER_H
#define KS_UVC_PROTOCOL_MASTER_H

#include "common/ks_export.h"

#define UVC_XU_UNIT_ID 3
#define UVC_XU_SELECTOR 1
#define UVC_XU_BLOCK_SIZE 320
// Set in the last byte of every block sent: a new request for the device.
#define UVC_XU_NEW_REQUEST_INDEX 319

KS_BEGIN_DECLS

// Once per process: registers send, receive and timestamp below with the
// protocol. Later calls return at once. Returns 0.
KS_API int uvc_protocol_master_init(void);

// One extension-unit query of len bytes; len & 0xFFFF, or -1 when the
// request fails (or buf is null, len negative).
KS_API int uvc_set_extension_data(int fd, unsigned char* buf, int len);
KS_API int uvc_get_extension_data(int fd, unsigned char* buf, int len);
// The control's length as the device reports it (little-endian), or -1.
KS_API int uvc_get_extension_data_len(int fd);

// Sets buf[319] = 1 and sends the 320-byte block on the current descriptor;
// the send result.
KS_API int uvc_protocol_master_send_data(unsigned char* buf);
// Receives a 320-byte block from the current descriptor: 0, or -1.
KS_API int uvc_protocol_master_receive_data(unsigned char* buf);
// The USB transport carries no timestamp: writes 0. Returns 0.
KS_API int uvc_protocol_get_current_timestamp(unsigned int* ts);

// The descriptor the next exchange uses (-1 until one is set).
KS_API int set_cur_uvc_fd(int fd);
KS_API int get_cur_uvc_fd(void);

// The process-wide, non-recursive exchange mutex; the pthread result.
KS_API int lock_uvc_protocol_mutex(void);
KS_API int unlock_uvc_protocol_mutex(void);
// Takes the mutex only if it is free: 0, or EBUSY while anyone (the calling
// thread included) holds it. For diagnostics and tests; not exported.
int trylock_uvc_protocol_mutex(void);

// The advisory lock of the node behind fd (flock through the platform seam),
// taken after the exchange mutex for each hold of it: the mutex keeps the
// threads of this process apart, the lock keeps other processes that opened
// the same camera from interleaving their messages with ours. It is bound to
// the node itself, so every link to the node names the same lock, and the
// kernel drops it with the descriptor when a process dies. 0 when the lock
// is held; -1 when fd cannot be locked (no descriptor, or a file system
// without locks): the exchange then goes ahead unlocked, as before there was
// a lock.
KS_API int lock_uvc_device(int fd);
// Releases what lock_uvc_device(fd) took: 0, or -1.
KS_API int unlock_uvc_device(int fd);

// What the protocol uses while no transport is registered: nothing, 0.
KS_API int default_send_data(unsigned char* buf);
KS_API int default_receive_data(unsigned char* buf);
KS_API int default_get_current_timestamp(unsigned int* ts);

KS_END_DECLS

#endif
