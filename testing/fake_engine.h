// Test support: a scripted engine on loopback. A thread accepts connections on an ephemeral port
// and answers each HTTP request with whatever the script returns for it: well-formed or broken
// responses, a close after the answer, no answer at all, or bytes that keep trickling in.
#ifndef VIGILO_TESTING_FAKE_ENGINE_H_
#define VIGILO_TESTING_FAKE_ENGINE_H_

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vigilo::test_support {

struct fake_reply {
  std::string bytes;        // sent as they are
  bool closeAfter = false;  // then the connection is closed
  bool silent = false;      // nothing is sent and the connection stays open
  std::string trickle =
      "";  // after `bytes`, sent again every 50 ms for as long as the client stays
};

// A complete response with a Content-Length body.
fake_reply httpReply(int status, const std::string& reason, const std::string& body,
                     const std::string& extraHeaders = "");
// A 200 response whose body is the status document of `pairs`.
fake_reply statusReply(const std::vector<std::pair<std::string, std::string>>& pairs);

class fake_engine {
 public:
  // Called on the engine's thread for every request: its path and its number, counted from 0.
  using script = std::function<fake_reply(const std::string& path, int request)>;

  // Listens on `address` ("127.0.0.1" or "::1") at an ephemeral port; throws when it cannot.
  explicit fake_engine(script answer, const std::string& address = "127.0.0.1");
  ~fake_engine();

  unsigned short port() const { return listenPort; }
  int connectionsAccepted() const { return accepted; }
  int requestsSeen() const { return requests; }
  // Closes every client connection, as an engine does with idle kept-alive ones; returns once
  // they are closed.
  void closeConnections();

 private:
  void run();

  script answer;
  int listenFd = -1;
  int wakeFds[2] = {-1, -1};
  unsigned short listenPort = 0;
  std::atomic<int> accepted{0};
  std::atomic<int> requests{0};
  std::mutex mutex;
  int closeRequests = 0;  // under `mutex`
  std::atomic<int> closesDone{0};
  std::atomic<bool> stopping{false};
  std::thread thread;
};

}  // namespace vigilo::test_support

#endif  // VIGILO_TESTING_FAKE_ENGINE_H_
