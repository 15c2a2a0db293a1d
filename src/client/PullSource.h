#ifndef VELKA_SRC_CLIENT_PULLSOURCE_H
#define VELKA_SRC_CLIENT_PULLSOURCE_H

// The pull source: the callbacks through which the playback engine opens,
// reads, seeks and sizes the medium, answered from a File. Playback registers
// them with IMtkPb_Ctrl_SetEngineParam; they run on engine threads.
//
// The source of a callback is the tmp file (the source Playback::open
// created) while there is one; otherwise the File whose address is the pull
// handle, which pb_open created and pb_close destroys.

#include <atomic>
#include <cstdint>
#include <memory>

#include "IMtkPb_Ctrl.h"
#include "velka/File.h"
#include "velka/Semaphore.h"

#define VELKA_INTERNAL __attribute__((visibility("hidden")))

namespace velka {

// State shared between Playback and the pull callbacks (Playback.cpp).

// The source Playback::open created and opened; null outside a playback.
// Playback clears it only after the engine instance has been closed, so the
// pull callbacks read it without a lock.
extern VELKA_INTERNAL std::atomic<File*> tempFile_;
// The last position the engine reported and no player has been told of yet;
// -1 = none.
extern VELKA_INTERNAL std::atomic<int32_t> currentTime_;

// Completion of one asynchronous read: hands the result to the engine's
// completion function, then destroys itself. Runs on the source's completion
// thread, which may come before readAsync has returned: it waits for this
// read's own hand-off, so that one read's completion can never go ahead on
// another read's hand-off (with several reads outstanding, or a late
// completion after an abort) and give the engine a null request handle.
//
// A network source cannot cancel the read it has in service, and its engine
// may hold that read for as long as the network stalls, while the playback
// engine's stop waits for every aborted read to complete. Such a read goes
// through a bounce buffer of the callback's own: pb_abort then completes it
// toward the engine at once (cancelled), and the source's late completion
// lands in the bounce buffer and is swallowed. Either way the engine's
// completion function is called once, and the engine's buffer is never
// written after it. Local files need no bounce: their reads end on their own.
class PlaybackCallback final : public File::AsyncCallback {
public:
    PlaybackCallback(IMtkPb_Ctrl_PullReadAsyncNfy done, void* tag);

    void complete(VelkaStatus status, uint32_t length) override;
    ~PlaybackCallback() override {}

    // Before readAsync: makes the source read into a bounce buffer, copied to
    // `engineBuffer` on completion. Returns the buffer to give the source;
    // null when it cannot be had.
    char* bounce(uint8_t* engineBuffer, uint32_t count);

    // By pb_read_async once readAsync has accepted the request: stores its
    // handle and lets the completion go. The callback may be gone as soon as
    // this returns.
    void handOff(void* request);

    // By pb_abort, before the source is asked to cancel `request`: takes the
    // bounced read back from its completion, which from then on only frees
    // the callback, and gives the engine's completion function and context.
    // False when its completion is already being delivered (it may be held
    // by the engine until the abort returns, with the source's lock held) or
    // it has no bounce buffer.
    static bool withdraw(void* request, IMtkPb_Ctrl_PullReadAsyncNfy* done, void** tag);

private:
    std::atomic<void*> request_;         // the handle readAsync returned; null until then
    Semaphore handedOff_;                // posted once, by handOff(); waited once, by complete()
    IMtkPb_Ctrl_PullReadAsyncNfy done_;  // the engine's completion function
    void* tag_;                          // the engine's context for done_
    // The source's destination for a bounced read, freed with the callback;
    // null when the source reads into the engine's buffer directly.
    std::unique_ptr<char[]> bounce_;
    uint8_t* engineBuffer_;  // where a bounced read's bytes go
    uint32_t count_;         // the byte count asked for
};

// By Playback around each engine stop and close, which wait for the engine's
// threads: a blocking read of a network source that is waiting (pb_read)
// gives up with -1, since the engine has no abort for it, and one that starts
// meanwhile fails at once. Any thread.
void beginEngineStop();
void endEngineStop();

// The pull callbacks. Each returns 0 on success and -1 on failure.
IMTK_PB_CB_ERROR_CODE_T pb_open(IMTK_PB_HANDLE_T hHandle, IMTK_PULL_HANDLE_T* phPullSrc,
                                void* pvAppTag);
IMTK_PB_CB_ERROR_CODE_T pb_close(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag);
IMTK_PB_CB_ERROR_CODE_T pb_read(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag, uint8_t* pu1DstBuf,
                                uint32_t u4Count, uint32_t* pu4Read);
IMTK_PB_CB_ERROR_CODE_T pb_read_async(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag,
                                      uint8_t* pu1DstBuf, uint32_t u4Count,
                                      IMtkPb_Ctrl_PullReadAsyncNfy pfnNfy, void* pvNfyTag,
                                      IMTK_PULL_REQ_HANDLE_T* phReq);
IMTK_PB_CB_ERROR_CODE_T pb_abort(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag,
                                 IMTK_PULL_REQ_HANDLE_T hReq);
IMTK_PB_CB_ERROR_CODE_T pb_seek(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag, int64_t i8Offset,
                                uint8_t u1Origin, uint64_t* pu8CurPos);
IMTK_PB_CB_ERROR_CODE_T pb_available(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag,
                                     uint64_t* pu8Avail);

}  // namespace velka

#endif  // VELKA_SRC_CLIENT_PULLSOURCE_H
