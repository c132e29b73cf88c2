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
// The semaphore that makes one exchange at a time on the queue, for every
// process of the machine (of the IPC namespace): ftok of the same path.
inline constexpr int DSP_LOCK_PROJECT = 0x112;

struct dsp_message {
    long type;
    // One byte more than a message may hold, so that a longer response shows.
    char text[DSP_TEXT_MAX + 1];
};

// Attach to the service's queue (it creates the queue). Retries every
// millisecond; gives up once a pass reads the clock more than 3 whole seconds
// after the first, even if msgget succeeded in that pass. Returns the
// queue id, or -1. Once attached, exchanges are exclusive between processes.
int dsp_queue_attach();

// The service may be restarted and make its queue anew under the same key.
// A send or receive that fails with EIDRM or EINVAL found the queue removed:
// dsp_queue_failed then drops the link's id (-1), and dsp_queue_reattach
// before its next exchange looks the key up once, without waiting, so that a
// service gone for good costs one msgget per command and no delay. A reply
// lost with the old queue is not waited for.
void dsp_queue_failed(int& id);
void dsp_queue_reattach(int& id);

// Formats a request into msg, cut to fit with its NUL, typed as a request.
// Returns the size to send: the text and its NUL.
size_t dsp_format_request(dsp_message& msg, const char* fmt, va_list ap);

// One request in msg (size bytes) and its response into msg. The ttyS1 and
// ttyS2 daemons share the queue and a response names no request, so the
// send and the receive are one step across processes too: under a SysV
// semaphore with SEM_UNDO, which the kernel gives back when its holder dies.
// Responses already on the queue belong to nobody alive (a holder killed
// before its receive) and are dropped first. With retry_eintr an interrupted
// send or receive is made again; otherwise it fails. A failure leaves errno.
enum class dsp_step { done, send_failed, receive_failed };
dsp_step dsp_exchange(int& id, dsp_message& msg, size_t size, bool retry_eintr);

// Sets the key of that semaphore (dsp_queue_attach sets the queue's own) and
// returns its id, or -1. Before it is set, exchanges take no such lock.
int dsp_exchange_lock_setup(key_t key);

// One blocking receive of a response into msg, ended as a string: the
// service sends its NUL, and one that comes without it is cut at the end of
// the text. A response longer than DSP_TEXT_MAX does not fit and fails with
// E2BIG, but is taken off the queue: left first there it would fail every
// later exchange. Returns the size, or -1 with errno.
ssize_t dsp_receive(int id, dsp_message& msg);
