// Test support: a scripted engine on loopback. It accepts connections on an ephemeral port and
// answers each HTTP request with whatever the script returns for it: well-formed or broken
// responses, a close after the answer, no answer at all, or bytes that keep trickling in. Each
// connection is served by a thread of its own.
#ifndef VIGILO_TESTING_FAKE_ENGINE_H_
#define VIGILO_TESTING_FAKE_ENGINE_H_

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace vigilo::test_support {

struct fake_reply {
  std::string bytes;         // sent as they are
  bool closeAfter = false;   // then the connection is closed
  bool silent = false;       // nothing is sent and the connection stays open
  std::string trickle = "";  // after `bytes`, sent every 50 ms for as long as the client stays
};

// A complete response with a Content-Length body.
fake_reply httpReply(int status, const std::string& reason, const std::string& body,
                     const std::string& extraHeaders = "");
// A 200 response whose body is the status document of `pairs`.
fake_reply statusReply(const std::vector<std::pair<std::string, std::string>>& pairs);

class fake_engine {
 public:
  // Called for every request, on its connection's thread: its path and its number, counted
  // from 0 over all connections.
  using script = std::function<fake_reply(const std::string& path, int request)>;

  // Listens on `address` ("127.0.0.1" or "::1") at an ephemeral port; throws when it cannot.
  explicit fake_engine(script answer, const std::string& address = "127.0.0.1");
  ~fake_engine();

  unsigned short port() const { return listenPort; }
  int connectionsAccepted() const { return accepted; }
  int requestsSeen() const { return requests; }
  // Closes every client connection, as an engine does with idle kept-alive ones.
  void closeConnections();

 private:
  void serve(int fd);

  const script answer;
  int listenFd = -1;
  unsigned short listenPort = 0;
  std::atomic<int> accepted{0};
  std::atomic<int> requests{0};
  std::mutex mutex;
  std::set<int> clients;             // open connections, under `mutex`
  std::vector<std::thread> servers;  // under `mutex`
  std::thread acceptor;
};

// A port of 127.0.0.1 that was free a moment ago, so that a connection to it is refused.
unsigned short closedLoopbackPort();

// A socket of `type` (SOCK_STREAM, SOCK_DGRAM) bound to a free port of 127.0.0.1, given in `port`.
int loopbackSocket(int type, unsigned short& port);

}  // namespace vigilo::test_support

#endif  // VIGILO_TESTING_FAKE_ENGINE_H_
