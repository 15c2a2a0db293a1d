#ifndef VELKA_SRC_HTTPWORKERCLIENT_H
#define VELKA_SRC_HTTPWORKERCLIENT_H

// A source that runs its transfers on the one HTTP worker (HttpTaskThread)
// beside the HttpTasks: the worker calls serve() at every pass, hands it the
// end of each transfer it added to the multi handle, and sleeps no longer than
// nextPassMs() says. Everything but the registration runs on the worker.

#define CURL_DISABLE_DEPRECATION 1
#include <curl/curl.h>

namespace velka {

class HttpWorkerClient {
public:
    virtual ~HttpWorkerClient() {}  // on the worker, after released() was seen
    // Serves reads, starts transfers, runs timers. With the worker's task
    // lock held, so completions run with it held as HttpTask's do.
    virtual void serve() = 0;
    // A transfer ended: true when `curl` was this client's. No lock held.
    virtual bool transferDone(CURL* curl, CURLcode code) = 0;
    // Milliseconds until the client needs a pass although nothing happened:
    // 0 at once, -1 not until something wakes the worker.
    virtual long nextPassMs() = 0;
    // The owner let go: the worker calls serve() once more, takes the client's
    // transfers out of the multi handle (removeTransfers) and deletes it.
    virtual bool released() = 0;
    virtual void removeTransfers() = 0;
};

// Hands `client` to the worker (starting it on first use). False at process
// exit, when the worker takes nothing new. Any thread.
bool addHttpWorkerClient(HttpWorkerClient* client);
// Wakes the worker for a pass; any thread. Wakes are not balanced when a
// read completes (as HttpTask's are): a client's pending reads do not keep
// the worker from sleeping, so a sleep may have taken the read's wake, and
// taking another back could swallow a release's. A spare wake costs one pass.
void wakeHttpWorker();

}  // namespace velka

#endif  // VELKA_SRC_HTTPWORKERCLIENT_H
