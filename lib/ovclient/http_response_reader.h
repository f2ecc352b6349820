// An incremental reader of one HTTP/1.x response: status line, headers, and a body framed by
// Content-Length, by chunked transfer coding, or by the end of the connection. It holds no socket,
// so that the client can feed it whatever arrives and the fuzzer can feed it anything. Header and
// body sizes are bounded: no input can make it hold more than the two limits.
#ifndef VIGILO_LIB_OVCLIENT_HTTP_RESPONSE_READER_H_
#define VIGILO_LIB_OVCLIENT_HTTP_RESPONSE_READER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace com::orvex::client {

class http_response_reader {
 public:
  enum class state { reading, complete, failed };

  static constexpr std::size_t defaultHeaderLimit = 64 * 1024;
  static constexpr std::size_t defaultBodyLimit = 16 * 1024 * 1024;

  explicit http_response_reader(std::size_t headerLimit = defaultHeaderLimit,
                                std::size_t bodyLimit = defaultBodyLimit);

  // Makes the reader ready for the next response; its buffers stay allocated.
  void reset();
  // Lets go of buffers grown past `bytes`.
  void shrink(std::size_t bytes);

  // Takes the next bytes of the connection. Bytes after a complete response are dropped, and the
  // connection is then not reused.
  state feed(std::string_view bytes);
  // The connection has ended: completes a body that runs to the close, fails anything else that
  // is unfinished.
  state finish();

  state current() const { return progress; }
  bool receivedAnything() const { return receivedBytes > 0; }
  int statusCode() const { return code; }
  const std::string& reason() const { return reasonPhrase; }
  const std::string& body() const { return content; }
  // Exchanges the body with `into`: the two buffers take turns, and neither is allocated anew.
  void takeBody(std::string& into) { into.swap(content); }
  // Whether the connection may carry the next request once the response is complete.
  bool keepAlive() const { return reusable; }
  // Why the response failed, for a person to act on.
  const std::string& error() const { return failure; }

 private:
  enum class phase {
    statusLine,
    headers,
    lengthBody,
    chunkSize,
    chunkData,
    chunkEnd,
    trailers,
    toClose,
    done
  };

  state fail(std::string why);
  bool takeLine(std::string_view& bytes, std::string& line);
  state headerLine(const std::string& line);
  state headersDone();
  state chunkSizeLine(const std::string& line);
  bool appendBody(std::string_view bytes);

  const std::size_t headerLimit;
  const std::size_t bodyLimit;
  state progress = state::reading;
  phase at = phase::statusLine;
  std::size_t receivedBytes = 0;
  std::size_t headerBytes = 0;
  std::string partialLine;  // the unfinished line
  std::string line;         // the last complete one
  int code = 0;
  bool http10 = false;
  std::string reasonPhrase;
  bool reusable = true;
  bool sawConnectionHeader = false;
  bool chunked = false;
  bool hasLength = false;
  std::uint64_t remaining = 0;  // Content-Length, then the bytes left of the body or chunk
  std::string content;
  std::string failure;
};

}  // namespace com::orvex::client

#endif  // VIGILO_LIB_OVCLIENT_HTTP_RESPONSE_READER_H_
