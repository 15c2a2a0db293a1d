/*
 * IMtkPb_Ctrl.h - the playback engine's control interface.
 *
 * One engine instance plays one medium in pull mode: the caller opens an
 * instance, registers a notification callback, hands over a set of pull
 * callbacks (PullSourceParams) through which the engine opens, reads, seeks
 * and sizes the medium, and then drives playback with Play, Pause, TimeSeek,
 * Stop and Close.
 *
 * Threads: the control operations may be called from any thread, also from
 * inside a notification. Notifications are delivered one at a time, in order,
 * on a thread of the engine, with no engine lock held. The pull callbacks are
 * called on engine threads and on the thread of the control operation that
 * needs data (SetEngineParam, GetMediaInfo, Stop, Close).
 *
 * Types that carry addresses (handles, tags, request handles, the words of
 * PullSourceParams) are pointer-sized, so the same code is right on 32- and
 * 64-bit targets.
 */
#ifndef IMTKPB_CTRL_H
#define IMTKPB_CTRL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Handles and results -------------------------------------------------- */

/* An engine instance, written by IMtkPb_Ctrl_Open; never 0 for an open instance. */
typedef uintptr_t IMTK_PB_HANDLE_T;

/* The pull source's own handle for the opened medium, written by its pb_open
 * and passed back unchanged to every other pull callback. */
typedef uintptr_t IMTK_PULL_HANDLE_T;

/* A pending asynchronous read, written by pb_read_async; passed back to
 * pb_abort and to the completion function. */
typedef void* IMTK_PULL_REQ_HANDLE_T;

/* Result of every pull callback. */
typedef int32_t IMTK_PB_CB_ERROR_CODE_T;
#define IMTK_PB_CB_ERROR_CODE_OK ((IMTK_PB_CB_ERROR_CODE_T)0)
#define IMTK_PB_CB_ERROR_CODE_NOT_OK ((IMTK_PB_CB_ERROR_CODE_T)-1)

/* Result of every IMtkPb_Ctrl_ operation: 0 success, negative failure. */
typedef int32_t IMTK_PB_ERROR_CODE_T;
#define IMTK_PB_ERROR_CODE_OK ((IMTK_PB_ERROR_CODE_T)0)
#define IMTK_PB_ERROR_CODE_NOT_OK ((IMTK_PB_ERROR_CODE_T)-1)         /* generic failure */
#define IMTK_PB_ERROR_CODE_INV_HANDLE ((IMTK_PB_ERROR_CODE_T)-2)     /* no such instance */
#define IMTK_PB_ERROR_CODE_INV_ARG ((IMTK_PB_ERROR_CODE_T)-3)        /* bad argument */
#define IMTK_PB_ERROR_CODE_INV_STATE ((IMTK_PB_ERROR_CODE_T)-4)      /* not now (e.g. no source yet) */
#define IMTK_PB_ERROR_CODE_UNSUPPORTED ((IMTK_PB_ERROR_CODE_T)-5)    /* medium not recognised */

/* ---- IMtkPb_Ctrl_Open arguments --------------------------------------------- */

/* Buffering model: the engine buffers what it pulls through the callbacks. */
#define IMTK_PB_CTRL_BUFFERING_MODEL_PULL 2u
/* Operating model: the application hands the engine a pull source. */
#define IMTK_PB_CTRL_APP_MASTER_PULL 2u

/* ---- Notifications ---------------------------------------------------------- */

/* Event numbers passed as `event` to the notification callback. */
typedef uint32_t IMTK_PB_CTRL_EVENT_T;
enum {
    IMTK_PB_CTRL_EVENT_TOTAL_TIME_UPDATE = 1, /* data: duration, ms */
    IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE = 2,   /* data: position, ms */
    IMTK_PB_CTRL_EVENT_BUFFER_UNDERFLOW = 3,  /* data: 0; playback waits for data */
    IMTK_PB_CTRL_EVENT_BUFFER_HIGH = 4,       /* data: 0; data flows again */
    IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR = 6,    /* data: 0; playback stopped on an error */
    IMTK_PB_CTRL_EVENT_EOS = 7,               /* data: 0; the end of the medium was played */
    IMTK_PB_CTRL_EVENT_PLAYED = 9,            /* data: 0; Play took effect */
    IMTK_PB_CTRL_EVENT_STEP_DONE = 10,        /* data: 0 */
    IMTK_PB_CTRL_EVENT_TIMESEEK_DONE = 11,    /* data: position reached, ms; -1 = the seek failed */
    IMTK_PB_CTRL_EVENT_GET_BUF_READY = 12     /* data: 0 */
};

/*
 * The notification callback. `tag` is the value given to
 * IMtkPb_Ctrl_RegCallback, unchanged. `data` is a signed pointer-sized integer:
 * times in milliseconds, -1 for a failed time seek, 0 where the event carries
 * nothing. The result is ignored by the engine; return 0.
 */
typedef int32_t (*IMtkPb_Ctrl_Nfy_Fct)(IMTK_PB_CTRL_EVENT_T event, void* tag, intptr_t data);

/* ---- Pull source ------------------------------------------------------------ */

/* Result of an asynchronous read, given to the completion function. */
#define IMTK_PB_PULL_READ_DONE ((int32_t)0)       /* `length` bytes delivered; 0 = end of medium */
#define IMTK_PB_PULL_READ_CANCELLED ((int32_t)1)  /* aborted with pb_abort; 0 bytes */
#define IMTK_PB_PULL_READ_FAILED ((int32_t)-1)    /* 0 bytes */

/*
 * The engine's completion function for an asynchronous read. It may be called
 * on any thread, also before pb_read_async has returned, exactly once for
 * every read that pb_read_async accepted (never for a refused one).
 * `tag` is the context the engine gave to pb_read_async, `request` the handle
 * pb_read_async wrote, `length` the bytes written into the engine's buffer.
 */
typedef void (*IMtkPb_Ctrl_PullReadAsyncNfy)(int32_t result, void* tag,
                                             IMTK_PULL_REQ_HANDLE_T request, uint32_t length);

/* Seek origins of pb_seek. */
#define IMTK_PB_PULL_SEEK_SET ((uint8_t)1) /* from the start */
#define IMTK_PB_PULL_SEEK_CUR ((uint8_t)2) /* from the current position */
#define IMTK_PB_PULL_SEEK_END ((uint8_t)3) /* from the end */

/* The pull callbacks. `pvAppTag` is the app tag of PullSourceParams, passed
 * unchanged to every call. Each returns IMTK_PB_CB_ERROR_CODE_OK (0) or
 * IMTK_PB_CB_ERROR_CODE_NOT_OK (-1). */
typedef IMTK_PB_CB_ERROR_CODE_T (*IMtkPb_Ctrl_PullOpenFct)(IMTK_PB_HANDLE_T hHandle,
                                                           IMTK_PULL_HANDLE_T* phPullSrc,
                                                           void* pvAppTag);
typedef IMTK_PB_CB_ERROR_CODE_T (*IMtkPb_Ctrl_PullCloseFct)(IMTK_PULL_HANDLE_T hPullSrc,
                                                            void* pvAppTag);
/* Blocking read at the current position; *pu4Read = bytes read, 0 at the end. */
typedef IMTK_PB_CB_ERROR_CODE_T (*IMtkPb_Ctrl_PullReadFct)(IMTK_PULL_HANDLE_T hPullSrc,
                                                           void* pvAppTag, uint8_t* pu1DstBuf,
                                                           uint32_t u4Count, uint32_t* pu4Read);
/* Starts a read of up to u4Count bytes at the current position into pu1DstBuf;
 * 0 = accepted (*phReq written, pfnNfy called once later), -1 = refused. */
typedef IMTK_PB_CB_ERROR_CODE_T (*IMtkPb_Ctrl_PullReadAsyncFct)(
    IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag, uint8_t* pu1DstBuf, uint32_t u4Count,
    IMtkPb_Ctrl_PullReadAsyncNfy pfnNfy, void* pvNfyTag, IMTK_PULL_REQ_HANDLE_T* phReq);
/* Asks the source to abandon an accepted read; it still completes once. */
typedef IMTK_PB_CB_ERROR_CODE_T (*IMtkPb_Ctrl_PullAbortFct)(IMTK_PULL_HANDLE_T hPullSrc,
                                                            void* pvAppTag,
                                                            IMTK_PULL_REQ_HANDLE_T hReq);
/* Moves the position; origin IMTK_PB_PULL_SEEK_*; *pu8CurPos = the new position. */
typedef IMTK_PB_CB_ERROR_CODE_T (*IMtkPb_Ctrl_PullSeekFct)(IMTK_PULL_HANDLE_T hPullSrc,
                                                           void* pvAppTag, int64_t i8Offset,
                                                           uint8_t u1Origin, uint64_t* pu8CurPos);
/* *pu8Avail = bytes from the current position to the end. */
typedef IMTK_PB_CB_ERROR_CODE_T (*IMtkPb_Ctrl_PullAvailableFct)(IMTK_PULL_HANDLE_T hPullSrc,
                                                                void* pvAppTag,
                                                                uint64_t* pu8Avail);

/* Pull mode with asynchronous reads, the mode the engine supports. */
#define IMTK_PB_CTRL_PULL_MODE_ASYNC 3u

/* Given to IMtkPb_Ctrl_SetEngineParam: nine pointer-sized words, in this
 * order. The engine copies the record. It reads with pb_read_async only;
 * pb_available serves for the size when pb_seek to the end fails. */
typedef struct PullSourceParams {
    uintptr_t mode;  /* IMTK_PB_CTRL_PULL_MODE_ASYNC (3) */
    void* appTag;    /* passed unchanged to every pull callback */
    IMtkPb_Ctrl_PullOpenFct pbOpen;
    IMtkPb_Ctrl_PullCloseFct pbClose;
    IMtkPb_Ctrl_PullReadFct pbRead;
    IMtkPb_Ctrl_PullReadAsyncFct pbReadAsync;
    IMtkPb_Ctrl_PullAbortFct pbAbort;
    IMtkPb_Ctrl_PullSeekFct pbSeek;
    IMtkPb_Ctrl_PullAvailableFct pbAvailable;
} PullSourceParams;

/* ---- Records ---------------------------------------------------------------- */

/* A rectangle in thousandths of the screen; the whole picture is {0, 0, 1000, 1000}. */
typedef struct EngineRect {
    uint32_t x;
    uint32_t y;
    uint32_t width;
    uint32_t height;
} EngineRect;

/* What IMtkPb_Ctrl_GetMediaInfo learns about the medium. */
typedef struct IMTK_PB_CTRL_MEDIA_INFO_T {
    uint32_t durationMs;    /* 0 when unknown */
    uint32_t bitRate;       /* bit/s, 0 when unknown */
    uint64_t size;          /* bytes of the medium, 0 when unknown */
    uint16_t videoStreams;
    uint16_t audioStreams;
    uint16_t otherStreams;
    uint16_t reserved;
    uint32_t width;         /* first video stream, 0 without video */
    uint32_t height;
    char format[16];        /* container name, NUL-terminated */
} IMTK_PB_CTRL_MEDIA_INFO_T;

/* ---- Operations --------------------------------------------------------------- */

/* Opens an instance: bufferingModel IMTK_PB_CTRL_BUFFERING_MODEL_PULL (2),
 * operatingModel IMTK_PB_CTRL_APP_MASTER_PULL (2), profile "network". */
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_Open(IMTK_PB_HANDLE_T* phHandle, uint32_t bufferingModel,
                                      uint32_t operatingModel, const char* profile);

/* Registers the notification callback and its tag (replaces an earlier one). */
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_RegCallback(IMTK_PB_HANDLE_T hHandle, void* tag,
                                             IMtkPb_Ctrl_Nfy_Fct callback);

/* Hands over the pull source (the record is copied) and opens it with pb_open. */
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_SetEngineParam(IMTK_PB_HANDLE_T hHandle,
                                                const PullSourceParams* params);

/* Probes the medium through the pull source; 0 = playable. Reports the
 * duration with IMTK_PB_CTRL_EVENT_TOTAL_TIME_UPDATE before returning.
 * `info` may be null. */
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_GetMediaInfo(IMTK_PB_HANDLE_T hHandle,
                                              IMTK_PB_CTRL_MEDIA_INFO_T* info);

/* Starts playback (probing first if GetMediaInfo has not), or resumes it
 * after Pause, or starts again after the end; each time
 * IMTK_PB_CTRL_EVENT_PLAYED follows. `reserved`: 0. */
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_Play(IMTK_PB_HANDLE_T hHandle, uint32_t reserved);

/* Holds the clock; Play resumes. */
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_Pause(IMTK_PB_HANDLE_T hHandle);

/* Starts a seek to `seconds`; 0 = accepted, the end is announced by
 * IMTK_PB_CTRL_EVENT_TIMESEEK_DONE (data -1 when it failed). A medium whose
 * size the pull source cannot tell (a live stream) cannot be sought: its
 * seeks fail and leave playback where it was. */
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_TimeSeek(IMTK_PB_HANDLE_T hHandle, uint32_t seconds);

/* *timeMs = the playback position in ms; *bytePos = the medium offset of the
 * last data played (either pointer may be null). */
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_GetCurrentPos(IMTK_PB_HANDLE_T hHandle, uint32_t* timeMs,
                                               uint64_t* bytePos);

/* `full`: the whole picture; `output`: where it is shown. Both are copied. */
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_SetDisplayRectangle(IMTK_PB_HANDLE_T hHandle,
                                                     const EngineRect* full,
                                                     const EngineRect* output);

/* Ends playback: aborts outstanding reads with pb_abort and waits for their
 * completions; a pending time seek ends with TIMESEEK_DONE -1. Play then
 * starts again from the beginning. */
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_Stop(IMTK_PB_HANDLE_T hHandle);

/* Stops, closes the pull source with pb_close and ends the instance. No
 * notification and no pull callback follows once it has returned. Not from
 * inside one of the instance's own notifications (IMTK_PB_ERROR_CODE_INV_STATE). */
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_Close(IMTK_PB_HANDLE_T hHandle);

#ifdef __cplusplus
}
#endif

#endif /* IMTKPB_CTRL_H */
