// Where the server thread stands, for the exit on the main thread. Thrift's stop() works only
// once the server socket listens (an interrupt before listen() is lost), so the exit waits for
// a serve() that has begun to listen or to fail, and a serve() that hasn't begun never does.
#pragma once

#include <thrift/server/TServer.h>

#include <chrono>
#include <condition_variable>

#include "platform/mutex.h"

namespace tarn {

class server_lifecycle : public apache::thrift::server::TServerEventHandler {
 public:
  // How serve() ended.
  enum class ending {
    stopped,         // the exit asked for it
    never_listened,  // listen() failed
    died,            // the accept loop ended, or serve() threw, while nobody asked
  };

  // Server thread, just before serve(): false when the exit came first and serve() must not run.
  bool begin_serving();
  // Server thread, called by serve() once the socket listens.
  void preServe() override;
  // Server thread, when serve() has returned or thrown, or when there is nothing to serve
  // because the assembly failed.
  ending end_serving();

  // Main thread, at exit. From now on no serve() begins; waits while one is starting. True
  // when the server listens and stop() must be called on it; stop() then reaches it.
  bool stop_needed();

  // Any thread: waits until the server listens or its thread is done. True when it listens.
  bool wait_listening(std::chrono::milliseconds timeout);
  // Any thread: waits until serve() has returned. True when it has.
  bool wait_finished(std::chrono::milliseconds timeout);

 private:
  enum class phase { assembling, starting, listening, finished };

  Mutex mu_;
  std::condition_variable_any changed_;
  phase phase_ TARN_GUARDED_BY(mu_) = phase::assembling;
  bool stop_requested_ TARN_GUARDED_BY(mu_) = false;
};

}  // namespace tarn
