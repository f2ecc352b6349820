#include "http_response_reader.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace com::orvex::client {

namespace {

constexpr std::size_t chunkLineLimit = 1024;

bool sameLetters(std::string_view text, std::string_view lowercase) {
  return text.size() == lowercase.size() &&
         std::equal(text.begin(), text.end(), lowercase.begin(), [](char a, char b) {
           return std::tolower(static_cast<unsigned char>(a)) == b;
         });
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

bool hasToken(std::string_view list, std::string_view token) {
  std::string_view rest = list;
  while (!rest.empty()) {
    const auto comma = rest.find(',');
    if (sameLetters(trim(rest.substr(0, comma)), token)) return true;
    if (comma == std::string_view::npos) break;
    rest.remove_prefix(comma + 1);
  }
  return false;
}

}  // namespace

http_response_reader::http_response_reader(std::size_t headerLimit, std::size_t bodyLimit)
    : headerLimit(headerLimit), bodyLimit(bodyLimit) {}

void http_response_reader::shrink(std::size_t bytes) {
  for (std::string* buffer : {&partialLine, &line, &content}) {
    if (buffer->capacity() > bytes) std::string().swap(*buffer);
  }
}

void http_response_reader::reset() {
  progress = state::reading;
  at = phase::statusLine;
  receivedBytes = headerBytes = 0;
  partialLine.clear();
  code = 0;
  http10 = sawConnectionHeader = chunked = hasLength = false;
  reasonPhrase.clear();
  reusable = true;
  remaining = 0;
  content.clear();
  failure.clear();
}

http_response_reader::state http_response_reader::fail(std::string why) {
  failure = std::move(why);
  reusable = false;
  progress = state::failed;
  return progress;
}

// Takes one line ending in LF (a CR before it is dropped) into `line`; false when the bytes end
// first, with the partial line kept for the next feed. Lines count against the header limit while
// the head is read, and against a fixed limit in chunked framing.
bool http_response_reader::takeLine(std::string_view& bytes, std::string& line) {
  const auto lf = bytes.find('\n');
  const std::size_t take = lf == std::string_view::npos ? bytes.size() : lf + 1;
  // Interim responses, the head and the trailers share the header limit.
  const bool inHead = at == phase::statusLine || at == phase::headers || at == phase::trailers;
  const std::size_t limit = inHead ? headerLimit : chunkLineLimit;
  const std::size_t used = inHead ? headerBytes : partialLine.size();
  if (used + take > limit) {
    fail(inHead
             ? "response headers exceed " + std::to_string(headerLimit) + " bytes"
             : "malformed chunked body: line exceeds " + std::to_string(chunkLineLimit) + " bytes");
    return false;
  }
  if (inHead) headerBytes += take;
  partialLine.append(bytes.substr(0, take));
  bytes.remove_prefix(take);
  if (lf == std::string_view::npos) return false;
  partialLine.pop_back();
  if (!partialLine.empty() && partialLine.back() == '\r') partialLine.pop_back();
  line.swap(partialLine);  // both buffers are kept: a line allocates nothing once they have grown
  partialLine.clear();
  return true;
}

bool http_response_reader::appendBody(std::string_view bytes) {
  if (content.size() + bytes.size() > bodyLimit) {
    fail("response body exceeds " + std::to_string(bodyLimit) + " bytes");
    return false;
  }
  content.append(bytes);
  return true;
}

http_response_reader::state http_response_reader::headerLine(const std::string& line) {
  if (at == phase::statusLine) {
    // "HTTP/1.1 200 OK"
    if (line.size() < 12 || line.compare(0, 7, "HTTP/1.") != 0 || line[8] != ' ' ||
        !std::isdigit(static_cast<unsigned char>(line[9])) ||
        !std::isdigit(static_cast<unsigned char>(line[10])) ||
        !std::isdigit(static_cast<unsigned char>(line[11])) ||
        (line.size() > 12 && line[12] != ' ')) {
      return fail("malformed status line \"" + line.substr(0, 80) + "\"");
    }
    http10 = line[7] == '0';
    reusable = !http10;
    code = (line[9] - '0') * 100 + (line[10] - '0') * 10 + (line[11] - '0');
    reasonPhrase = line.size() > 13 ? line.substr(13) : "";
    at = phase::headers;
    return progress;
  }
  if (line.empty()) return headersDone();
  const auto colon = line.find(':');
  if (colon == std::string::npos || colon == 0) {
    return fail("malformed header line \"" + line.substr(0, 80) + "\"");
  }
  const std::string_view name = trim(std::string_view(line).substr(0, colon));
  const std::string_view value = trim(std::string_view(line).substr(colon + 1));
  if (sameLetters(name, "content-length")) {
    std::uint64_t length = 0;
    const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), length);
    if (value.empty() || ec != std::errc() || end != value.data() + value.size() ||
        (hasLength && length != remaining)) {
      return fail("malformed Content-Length \"" + std::string(value.substr(0, 40)) + "\"");
    }
    if (length > bodyLimit) {
      return fail("response body of " + std::to_string(length) + " bytes exceeds " +
                  std::to_string(bodyLimit) + " bytes");
    }
    hasLength = true;
    remaining = length;
  } else if (sameLetters(name, "transfer-encoding")) {
    if (!sameLetters(value, "chunked")) {
      return fail("unsupported Transfer-Encoding \"" + std::string(value.substr(0, 40)) + "\"");
    }
    chunked = true;
  } else if (sameLetters(name, "connection")) {
    if (hasToken(value, "close")) {
      reusable = false;
      sawConnectionHeader = true;
    } else if (hasToken(value, "keep-alive") && !sawConnectionHeader) {
      reusable = true;
    }
  }
  return progress;
}

http_response_reader::state http_response_reader::headersDone() {
  if (code >= 100 && code < 200 && code != 101) {
    // An interim response ("100 Continue"): the answer is still to come.
    code = 0;
    reasonPhrase.clear();
    chunked = hasLength = sawConnectionHeader = false;
    at = phase::statusLine;
    return progress;
  }
  if (code < 200 || code == 204 || code == 304) {
    at = phase::done;
    return progress = state::complete;
  }
  if (chunked) {
    at = phase::chunkSize;  // chunked framing overrides any Content-Length
  } else if (hasLength) {
    at = phase::lengthBody;
    if (remaining == 0) {
      at = phase::done;
      return progress = state::complete;
    }
  } else {
    at = phase::toClose;
    reusable = false;
  }
  return progress;
}

http_response_reader::state http_response_reader::chunkSizeLine(const std::string& line) {
  std::string_view size = line;
  size = trim(size.substr(0, size.find(';')));
  std::uint64_t length = 0;
  const auto [end, ec] = std::from_chars(size.data(), size.data() + size.size(), length, 16);
  if (size.empty() || ec != std::errc() || end != size.data() + size.size()) {
    return fail("malformed chunked body: bad chunk size \"" + line.substr(0, 40) + "\"");
  }
  if (length > bodyLimit - content.size()) {
    return fail("response body exceeds " + std::to_string(bodyLimit) + " bytes");
  }
  remaining = length;
  at = length == 0 ? phase::trailers : phase::chunkData;
  return progress;
}

http_response_reader::state http_response_reader::feed(std::string_view bytes) {
  receivedBytes += bytes.size();
  while (progress == state::reading && !bytes.empty()) {
    switch (at) {
      case phase::statusLine:
      case phase::headers:
        if (takeLine(bytes, line)) headerLine(line);
        break;
      case phase::lengthBody:
      case phase::chunkData: {
        const std::size_t take =
            static_cast<std::size_t>(std::min<std::uint64_t>(remaining, bytes.size()));
        if (!appendBody(bytes.substr(0, take))) break;
        bytes.remove_prefix(take);
        remaining -= take;
        if (remaining == 0) {
          if (at == phase::chunkData) {
            at = phase::chunkEnd;
          } else {
            at = phase::done;
            progress = state::complete;
          }
        }
        break;
      }
      case phase::chunkEnd:
        if (takeLine(bytes, line)) {
          if (!line.empty()) {
            fail("malformed chunked body: chunk not followed by a line end");
          } else {
            at = phase::chunkSize;
          }
        }
        break;
      case phase::chunkSize:
        if (takeLine(bytes, line)) chunkSizeLine(line);
        break;
      case phase::trailers:
        if (takeLine(bytes, line) && line.empty()) {
          at = phase::done;
          progress = state::complete;
        }
        break;
      case phase::toClose:
        if (appendBody(bytes)) bytes = {};
        break;
      case phase::done:
        break;
    }
  }
  if (progress == state::complete && !bytes.empty()) reusable = false;
  return progress;
}

http_response_reader::state http_response_reader::finish() {
  reusable = false;
  if (progress != state::reading) return progress;
  if (at == phase::toClose) {
    at = phase::done;
    return progress = state::complete;
  }
  if (receivedBytes == 0) return fail("connection closed by the engine before any response");
  return fail("connection closed by the engine in the middle of the response");
}

}  // namespace com::orvex::client
