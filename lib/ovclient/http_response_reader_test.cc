#include "http_response_reader.h"

#include <gtest/gtest.h>

#include <string>

namespace com::orvex::client {
namespace {

// The reader's state after `bytes` (and the end of the connection, with `atEof`): "reading",
// "failed: why", or the status, whether the connection is kept, and the body.
std::string outcome(const http_response_reader& reader) {
  switch (reader.current()) {
    case http_response_reader::state::reading:
      return "reading";
    case http_response_reader::state::failed:
      return "failed: " + reader.error();
    case http_response_reader::state::complete:
      break;
  }
  return std::to_string(reader.statusCode()) + (reader.keepAlive() ? " kept " : " closed ") +
         reader.body();
}

struct reader_case {
  std::string bytes;
  bool atEof;
  std::string outcome;
};

const std::string ok = "HTTP/1.1 200 OK\r\n";
const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
const std::string closedEarly =
    "failed: connection closed by the engine in the middle of the "
    "response";

// clang-format off
const reader_case cases[] = {
    {ok + "Content-Length: 5\r\n\r\nhello", false, "200 kept hello"},
    {"HTTP/1.1 200 OK\nContent-length: 2\n\nhi", false, "200 kept hi"},
    {ok + "Content-Length: 0\r\n\r\n", false, "200 kept "},
    {"HTTP/1.1 200\r\nContent-Length: 1\r\n\r\nx", false, "200 kept x"},
    {ok + "Connection: close\r\nContent-Length: 1\r\n\r\nx", false, "200 closed x"},
    {"HTTP/1.0 200 OK\r\nContent-Length: 1\r\n\r\nx", false, "200 closed x"},
    {"HTTP/1.0 200 OK\r\nConnection: Keep-Alive\r\nContent-Length: 1\r\n\r\nx", false,
     "200 kept x"},
    {chunked + "5\r\nhello\r\nA;ext=1\r\n!123456789\r\n0\r\nTrailer: x\r\n\r\n", false,
     "200 kept hello!123456789"},
    // Interim responses come before the answer; 101 is an answer of its own.
    {"HTTP/1.1 100 \r\n\r\nHTTP/1.1 103 \r\nL: x\r\n\r\n" + ok + "Content-Length: 2\r\n\r\nok",
     false, "200 kept ok"},
    {"HTTP/1.1 101 Switching Protocols\r\n\r\n", false, "101 kept "},
    // Chunked framing wins over a Content-Length.
    {ok + "Content-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", false,
     "200 kept hello"},
    {ok + "\r\nuntil the end", true, "200 closed until the end"},
    {"HTTP/1.1 204 No Content\r\n\r\n", false, "204 kept "},
    {ok + "Content-Length: 1\r\n\r\nxy", false, "200 closed x"},
    {ok + "Content-Length: 5\r\n\r\nhel", false, "reading"},
    // Failures, with a header limit of 96 bytes and a body limit of 32.
    {"", true, "failed: connection closed by the engine before any response"},
    {ok + "Content-Length: 5\r\n\r\nhel", true, closedEarly},
    {chunked + "5\r\nhe", true, closedEarly},
    {"SSH-2.0-OpenSSH\r\n", false, "failed: malformed status line \"SSH-2.0-OpenSSH\""},
    {"HTTP/1.1 2x0 OK\r\n", false, "failed: malformed status line \"HTTP/1.1 2x0 OK\""},
    {ok + "broken\r\n", false, "failed: malformed header line \"broken\""},
    {ok + "X: " + std::string(90, 'a'), false, "failed: response headers exceed 96 bytes"},
    {ok + "Content-Length: 33\r\n\r\n", false,
     "failed: response body of 33 bytes exceeds 32 bytes"},
    {ok + "Content-Length: 1x\r\n\r\n", false, "failed: malformed Content-Length \"1x\""},
    {ok + "Content-Length: -1\r\n\r\n", false, "failed: malformed Content-Length \"-1\""},
    {chunked + "10\r\n0123456789abcdef\r\n11\r\n", false, "failed: response body exceeds 32 bytes"},
    {chunked + "ffffffffffffffffff\r\n", false,
     "failed: malformed chunked body: bad chunk size \"ffffffffffffffffff\""},
    {chunked + "1\r\nxy\r\n", false,
     "failed: malformed chunked body: chunk not followed by a line end"},
    {ok + "\r\n" + std::string(33, 'b'), false, "failed: response body exceeds 32 bytes"},
    {chunked + "0\r\n" + std::string(60, 'x') + "\r\n" + std::string(60, 'x') + "\r\n", false,
     "failed: response headers exceed 96 bytes"},
    {ok + "Transfer-Encoding: gzip\r\n\r\n", false,
     "failed: unsupported Transfer-Encoding \"gzip\""},
};
// clang-format on

// Every case is read at once, and again one byte at a time: framing must not depend on how the
// network splits the response.
TEST(ResponseReaderTest, FramesAndRefuses) {
  for (const reader_case& c : cases) {
    for (const bool byteByByte : {false, true}) {
      SCOPED_TRACE(c.bytes.substr(0, 80) + (byteByByte ? " (byte by byte)" : ""));
      http_response_reader reader(96, 32);
      if (byteByByte) {
        for (const char ch : c.bytes) reader.feed(std::string_view(&ch, 1));
      } else {
        reader.feed(c.bytes);
      }
      if (c.atEof) reader.finish();
      EXPECT_EQ(outcome(reader), c.outcome);
    }
  }
}

}  // namespace
}  // namespace com::orvex::client
