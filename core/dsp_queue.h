// What both links rely on of the DSP service's SysV message queue.
#pragma once
#include <cstdarg>
#include <cstddef>
#include <sys/types.h>

inline constexpr size_t DSP_TEXT_MAX = 3072;
inline constexpr long DSP_REQUEST_TYPE = 2;
inline constexpr long DSP_RESPONSE_TYPE = 1;
inline constexpr int DSP_QUEUE_PROJECT = 0x111;
inline constexpr const char* DSP_QUEUE_PATH = "/tmp";

struct dsp_message {
    long type;
    char text[DSP_TEXT_MAX];
};

// Attach to the service's queue (it creates the queue). Retries every
// millisecond; gives up once a pass reads the clock more than 3 whole seconds
// after the first, even if msgget succeeded in that pass. Returns the
// queue id, or -1.
int dsp_queue_attach();

// Formats a request into msg, cut to fit with its NUL, typed as a request.
// Returns the size to send: the text and its NUL.
size_t dsp_format_request(dsp_message& msg, const char* fmt, va_list ap);

// Ends a response of r bytes as a string: the service sends its NUL, and one
// that comes without it is cut at the end of the buffer.
void dsp_end_response(dsp_message& msg, ssize_t r);
