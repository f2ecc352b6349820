// Test support: HTTP requests written byte by byte on connections of the test's own, for the
// requests that an HTTP client library would not make.
#ifndef VIGILO_TESTING_RAW_HTTP_H_
#define VIGILO_TESTING_RAW_HTTP_H_

#include <string>

namespace vigilo::test_support {

// A connection to 127.0.0.1:port whose reads give up after five seconds.
int connectTo(unsigned short port);

// A request that asks the server to close the connection after its answer.
std::string request(const std::string& method, const std::string& path, const std::string& body,
                    const std::string& headers = "");

// "status body" of the answer on `fd`, read to its close.
std::string answerOn(int fd);

// Sends `bytes` on a connection of its own, and reads the answer.
std::string rawExchange(unsigned short port, const std::string& bytes);

// `text`, `count` times over.
std::string many(const std::string& text, int count);

}  // namespace vigilo::test_support

#endif  // VIGILO_TESTING_RAW_HTTP_H_
