/* The plain C interface of the library: decoding through handles. */
#ifndef QUILLON_C_H
#define QUILLON_C_H

#include <stdint.h>

#include "quillon/platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A decoder handle: the decoder object's address (32 bits on the 32-bit
 * Windows build, pointer-sized elsewhere); 0 means no decoder. */
typedef uintptr_t quillon_decoder_handle;

/* Maps a recording file's compression number to the library's code (0: none). */
QUILLON_API int QUILLON_STDCALL FileToAPICompression(int fileCode);
/* A mono decoder for the code, or 0 when the code is not accepted. */
QUILLON_API quillon_decoder_handle QUILLON_STDCALL decoder_create(int apiCode);
/* Opens the output side (as a rule code 100, 16-bit PCM); 1 on success, 0 on failure. */
QUILLON_API int QUILLON_STDCALL decoder_open(quillon_decoder_handle handle, int outApiCode);
/* Decodes inBytes bytes; returns the bytes written to out. */
QUILLON_API unsigned int QUILLON_STDCALL decode_decode(quillon_decoder_handle handle, const uint8_t* in,
                                                       uint8_t* out, unsigned int inBytes);
/* Closes the output side; returns 1. */
QUILLON_API int QUILLON_STDCALL decoder_close(quillon_decoder_handle handle);
/* Closes and destroys the decoder; accepts 0; returns non-zero. */
QUILLON_API int QUILLON_STDCALL decoder_release(quillon_decoder_handle handle);

/* Called instead of ending the process when the library meets a fatal error
 * (a failed trace write in the G.729/G.722/AMR-WB engine front, a division
 * the G.729 arithmetic cannot do). `message` is the text the library would
 * have printed, `status` the exit status it would have ended with. When the
 * handler returns, the failing call is abandoned: the C functions above
 * return their error value (decode_decode 0, decoder_create 0), the C++
 * classes throw TAV::FatalError, and the codec that failed is reset. */
typedef void (QUILLON_STDCALL* quillon_fatal_handler)(const char* message, int status, void* context);
/* Installs `handler` with `context` for every thread (null: back to the
 * default, which prints the message to the trace sink and ends the process);
 * returns the previous handler. */
QUILLON_API quillon_fatal_handler QUILLON_STDCALL quillon_set_fatal_handler(quillon_fatal_handler handler,
                                                                          void* context);

#ifdef __cplusplus
}
#endif

#endif
