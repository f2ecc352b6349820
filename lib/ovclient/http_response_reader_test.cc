#include "http_response_reader.h"

#include <gtest/gtest.h>

#include <string>

#include "testing/param_name.h"

namespace com::orvex::client {
namespace {

using state = http_response_reader::state;

struct reader_case {
  const char* name;
  std::string bytes;
  bool atEof;  // the connection ends after the bytes
  state expected;
  int status = 0;
  std::string body = "";
  bool keepAlive = false;
  std::string error = "";
};

// Runs the bytes through a reader at once, and again one byte at a time: framing must not depend
// on how the network splits the response.
class ResponseReaderTest : public ::testing::TestWithParam<reader_case> {};

TEST_P(ResponseReaderTest, Reads) {
  const reader_case& c = GetParam();
  for (const bool byteByByte : {false, true}) {
    SCOPED_TRACE(byteByByte ? "byte by byte" : "whole");
    http_response_reader reader(96, 32);
    if (byteByByte) {
      for (const char ch : c.bytes) reader.feed(std::string_view(&ch, 1));
    } else {
      reader.feed(c.bytes);
    }
    if (c.atEof) reader.finish();
    EXPECT_EQ(reader.current(), c.expected);
    EXPECT_EQ(reader.error(), c.error);
    if (c.expected == state::complete) {
      EXPECT_EQ(reader.statusCode(), c.status);
      EXPECT_EQ(reader.body(), c.body);
      EXPECT_EQ(reader.keepAlive(), c.keepAlive);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Framing, ResponseReaderTest,
    ::testing::Values(
        reader_case{"length", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello", false,
                    state::complete, 200, "hello", true},
        reader_case{"length with LF line ends", "HTTP/1.1 200 OK\nContent-length: 2\n\nhi", false,
                    state::complete, 200, "hi", true},
        reader_case{"zero length", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", false,
                    state::complete, 200, "", true},
        reader_case{"no reason", "HTTP/1.1 200\r\nContent-Length: 1\r\n\r\nx", false,
                    state::complete, 200, "x", true},
        reader_case{"connection close",
                    "HTTP/1.1 200 OK\r\nConnection: close\r\n"
                    "Content-Length: 1\r\n\r\nx",
                    false, state::complete, 200, "x", false},
        reader_case{"http/1.0 closes", "HTTP/1.0 200 OK\r\nContent-Length: 1\r\n\r\nx", false,
                    state::complete, 200, "x", false},
        reader_case{"http/1.0 keep-alive",
                    "HTTP/1.0 200 OK\r\nConnection: Keep-Alive\r\n"
                    "Content-Length: 1\r\n\r\nx",
                    false, state::complete, 200, "x", true},
        reader_case{"chunked",
                    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                    "5\r\nhello\r\n1;ext=1\r\n!\r\n0\r\nTrailer: x\r\n\r\n",
                    false, state::complete, 200, "hello!", true},
        reader_case{"chunked hex size",
                    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                    "A\r\n0123456789\r\n0\r\n\r\n",
                    false, state::complete, 200, "0123456789", true},
        // Interim responses come before the answer; 101 is an answer of its own.
        reader_case{"interim responses",
                    "HTTP/1.1 100 \r\n\r\nHTTP/1.1 103 \r\nL: x\r\n\r\n"
                    "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok",
                    false, state::complete, 200, "ok", true},
        reader_case{"switching protocols", "HTTP/1.1 101 Switching Protocols\r\n\r\n", false,
                    state::complete, 101, "", true},
        // Chunked framing wins over a Content-Length.
        reader_case{"chunked and length",
                    "HTTP/1.1 200 OK\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n"
                    "5\r\nhello\r\n0\r\n\r\n",
                    false, state::complete, 200, "hello", true},
        reader_case{"read to close", "HTTP/1.1 200 OK\r\n\r\nuntil the end", true, state::complete,
                    200, "until the end", false},
        reader_case{"error status has a body",
                    "HTTP/1.1 500 Internal Server Error\r\n"
                    "Content-Length: 4\r\n\r\noops",
                    false, state::complete, 500, "oops", true},
        reader_case{"no body for 204", "HTTP/1.1 204 No Content\r\n\r\n", false, state::complete,
                    204, "", true},
        reader_case{"bytes after the response",
                    "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n"
                    "xy",
                    false, state::complete, 200, "x", false},
        reader_case{"waiting for more", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhel", false,
                    state::reading}),
    vigilo::test_support::paramName);

INSTANTIATE_TEST_SUITE_P(
    Failures, ResponseReaderTest,
    ::testing::Values(
        reader_case{"nothing at all", "", true, state::failed, 0, "", false,
                    "connection closed by the engine before any response"},
        reader_case{"truncated body", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhel", true,
                    state::failed, 0, "", false,
                    "connection closed by the engine in the middle of the response"},
        reader_case{"truncated chunk",
                    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                    "5\r\nhe",
                    true, state::failed, 0, "", false,
                    "connection closed by the engine in the middle of the response"},
        reader_case{"not http", "SSH-2.0-OpenSSH\r\n", false, state::failed, 0, "", false,
                    "malformed status line \"SSH-2.0-OpenSSH\""},
        reader_case{"bad status code", "HTTP/1.1 2x0 OK\r\n", false, state::failed, 0, "", false,
                    "malformed status line \"HTTP/1.1 2x0 OK\""},
        reader_case{"header without colon", "HTTP/1.1 200 OK\r\nbroken\r\n", false, state::failed,
                    0, "", false, "malformed header line \"broken\""},
        reader_case{"headers over the limit", "HTTP/1.1 200 OK\r\nX: " + std::string(90, 'a'),
                    false, state::failed, 0, "", false, "response headers exceed 96 bytes"},
        reader_case{"length over the limit", "HTTP/1.1 200 OK\r\nContent-Length: 33\r\n\r\n", false,
                    state::failed, 0, "", false, "response body of 33 bytes exceeds 32 bytes"},
        reader_case{"bad length", "HTTP/1.1 200 OK\r\nContent-Length: 1x\r\n\r\n", false,
                    state::failed, 0, "", false, "malformed Content-Length \"1x\""},
        reader_case{"negative length", "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n", false,
                    state::failed, 0, "", false, "malformed Content-Length \"-1\""},
        reader_case{"chunks over the limit",
                    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n"
                    "\r\n10\r\n0123456789abcdef\r\n11\r\n",
                    false, state::failed, 0, "", false, "response body exceeds 32 bytes"},
        reader_case{"huge chunk size",
                    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                    "ffffffffffffffffff\r\n",
                    false, state::failed, 0, "", false,
                    "malformed chunked body: bad chunk size \"ffffffffffffffffff\""},
        reader_case{"chunk without line end",
                    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n"
                    "\r\n1\r\nxy\r\n",
                    false, state::failed, 0, "", false,
                    "malformed chunked body: chunk not followed by a line end"},
        reader_case{"read to close over the limit",
                    "HTTP/1.1 200 OK\r\n\r\n" + std::string(33, 'b'), false, state::failed, 0, "",
                    false, "response body exceeds 32 bytes"},
        reader_case{"endless trailers",
                    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n" +
                        std::string(60, 'x') + "\r\n" + std::string(60, 'x') + "\r\n",
                    false, state::failed, 0, "", false, "response headers exceed 96 bytes"},
        reader_case{"unknown coding", "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\n\r\n", false,
                    state::failed, 0, "", false, "unsupported Transfer-Encoding \"gzip\""}),
    vigilo::test_support::paramName);

}  // namespace
}  // namespace com::orvex::client
