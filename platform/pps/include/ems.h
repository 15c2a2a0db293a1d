#ifndef EMS_H
#define EMS_H

// The box's peer-to-peer streaming engine, as the media library sees it.
//
// One engine per process. ems_init() gives it a working directory. Each URL
// becomes a task: ems_add_task() gives its index (0 or more), ems_start_task()
// opens the stream and starts downloading it, in pieces, into the engine's own
// store, on a thread of the engine's. ems_readdata() takes bytes from the
// store at any position; it never waits for the download. ems_stop_task() ends
// the download, ems_del_task() forgets the task, ems_uninit() ends every task
// and every engine thread.
//
// Progress and trouble reach the one listener given to
// ems_event_listener_func(), on the engine's event thread, one event at a
// time and with no engine lock held: the listener may call the engine (but not
// ems_uninit()).
//
// URLs served by the build of the engine in this tree:
//   "pps-test://PATH"                       a file of local storage, for example
//                                           "pps-test:///data/movie.ts"
//   "pps-test://http://HOST:PORT/PATH"      a file on an HTTP server that answers
//                                           byte-range requests (206)
// Other URLs give a task whose ems_start_task() fails.
//
// Results: 0 or more is success; the negative values below are failures.

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum ems_result {
    EMS_OK = 0,
    EMS_ERR_TASK = -1,      // no task has this index
    EMS_ERR_STATE = -2,     // the task is not in a state for this call
    EMS_ERR_SOURCE = -3,    // the stream could not be opened or read
    EMS_ERR_ARGUMENT = -4,  // a null pointer, a missing directory
};

// Event types, word 0 of ems_event. The progress events carry a percentage in
// word 1; the others carry 0 there.
enum ems_event_type {
    EMS_EVENT_CONNECT_TIMEOUT = 0,
    EMS_EVENT_SERVER_NOT_FOUND = 1,
    EMS_EVENT_NO_RESPONSE = 2,
    EMS_EVENT_SERVER_INVALID = 3,
    EMS_EVENT_VERSION_TOO_LOW = 4,
    EMS_EVENT_CLIENT_NAME_ERROR = 5,
    EMS_EVENT_URL_NOT_FOUND = 6,
    EMS_EVENT_NO_SERVICE = 7,
    EMS_EVENT_OUT_OF_AREA = 8,
    EMS_EVENT_MEDIA_INFO_ERROR = 9,
    EMS_EVENT_INDEX_INFO_ERROR = 10,
    EMS_EVENT_NO_INDEX = 11,
    EMS_EVENT_NO_MEDIA = 12,
    EMS_EVENT_MULTI_INSTANCE = 13,
    EMS_EVENT_PREPARING_MEDIA_INFO = 14,   // percentage
    EMS_EVENT_REQUESTING_MEDIA_INFO = 15,  // percentage
    EMS_EVENT_REQUESTING_INDEX_INFO = 16,  // percentage
    EMS_EVENT_PLAYING = 17,
    EMS_EVENT_BUFFERING = 18,  // percentage of the start-up buffer downloaded
    EMS_EVENT_CONNECTING = 19,
    EMS_EVENT_MEDIA_READY = 20,
    EMS_EVENT_PARSING_SERVER_INFO = 21,
    EMS_EVENT_MEDIA_INFO_OK = 22,
    EMS_EVENT_BUFFERING_DONE = 23,
    EMS_EVENT_PREPARE_MEDIA = 24,
    EMS_EVENT_STORAGE_FAILED = 25,
    EMS_EVENT_QUIT = 26,
    EMS_EVENT_WAIT_DATA_TIMEOUT = 27,
    EMS_EVENT_UPDATING = 28,  // percentage
    EMS_EVENT_UPDATE_FAILED = 29,
    EMS_EVENT_UPDATE_OK = 30,
};

// One event, passed to the listener by value. Four words: on 32-bit ARM it
// arrives partly in registers and partly on the stack.
struct ems_event {
    int32_t type;      // word 0: an ems_event_type
    int32_t param;     // word 1: the percentage of a progress event, else 0
    int32_t detail;    // word 2: bytes in the store, in KiB, when the engine sent it
    int32_t reserved;  // word 3: 0
};

// Task states, as ems_get_task_status() reports them.
enum ems_task_state {
    EMS_TASK_ADDED = 0,        // not started
    EMS_TASK_DOWNLOADING = 1,  // pieces are arriving
    EMS_TASK_COMPLETE = 2,     // the store holds the whole stream
    EMS_TASK_STOPPED = 3,      // stopped by ems_stop_task()
    EMS_TASK_BROKEN = 4,       // the stream could not be read further
};

// Filled by ems_get_task_status(): 24 bytes, little endian, laid out byte for
// byte as below on 32- and 64-bit machines.
struct ems_task_status {
    int64_t downloaded;    // bytes 0-7: bytes in the store
    int64_t total_length;  // bytes 8-15: length of the stream, -1 while unknown
    int32_t state;         // bytes 16-19: an ems_task_state
    int32_t percent;       // bytes 20-23: share of the stream in the store, 0-100
};

// Called on the engine's event thread; the result is ignored.
typedef int (*ems_event_listener)(int task_index, struct ems_event event);

// Prepares the engine to work in the existing directory `work_dir`.
int ems_init(const char* work_dir);
// Stops and forgets every task and ends the engine's threads.
int ems_uninit(void);
// The one receiver of events; null stops them.
int ems_event_listener_func(ems_event_listener listener);
// A new task for `url`; its index (0 or more). `mode` and `options` are
// reserved: pass 0.
int ems_add_task(const char* url, int mode, int options);
// Opens the stream (its length is known when this returns) and starts the
// download. `options` is reserved: pass 0.
int ems_start_task(int task_index, int options);
// Ends the task's download; the store keeps what it holds but is no longer read.
int ems_stop_task(int task_index);
// Stops the task if needed and forgets it.
int ems_del_task(int task_index);
// Fills `status`; 0 on success. A failed query leaves the record untouched.
int ems_get_task_status(int task_index, struct ems_task_status* status);
// Copies up to `count` bytes of the stream from `position` out of the store:
// the bytes copied (fewer than `count` when the store holds fewer there in a
// row), 0 when the byte at `position` has not arrived yet or lies at or past
// the end, negative when the task is not started, stopped, or its download
// broke before that byte arrived. Never waits. `hint` is reserved (callers
// pass a pointer to 15); the engine leaves it as it is.
int ems_readdata(int task_index, char* buffer, uint32_t count, int64_t position, int64_t* hint);

#ifdef __cplusplus
}  // extern "C"

static_assert(sizeof(ems_event) == 16, "event is four words");
static_assert(sizeof(ems_task_status) == 24, "task status is 24 bytes");
static_assert(__builtin_offsetof(ems_task_status, total_length) == 8, "length at byte 8");
#endif

#endif  // EMS_H
