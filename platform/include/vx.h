// The device's service-call interface: six operations on a request/reply buffer.
//
// On a device the vendor's library implements it; platform/ holds the reference implementation. All symbols
// are unmangled.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// A new empty buffer, or null.
void* vx_io_create(void);

// Writes the request text into the buffer, printf-style, in place of what it holds. 0 on success.
int vx_io_printf(void* io, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Sends the buffer's text to `method` of `service` and stores the reply in the same buffer. `limit`: seconds
// for the whole exchange. The last argument is always -1. 0 on success.
int vx_call(const char* service, const char* method, void* io, int limit, int minus_one);

// The reply text; it belongs to the buffer. `length` points to an integer that receives its length; 0: no
// reply. Vendors differ in that integer's width: hand in the address of a zeroed 8-byte integer.
const char* vx_io_read(void* io, void* length);

// vx_io_realloc(io, 0) empties the buffer for a second call.
void* vx_io_realloc(void* io, int size);

void vx_io_free(void* io);

#ifdef __cplusplus
}
#endif
