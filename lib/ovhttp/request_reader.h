// Reads one request with Beast's parser, and refuses what passes a bound as it arrives: a request
// line (414), a header line or one field too many (431), an encoded body (415), a transfer coding
// other than chunked (400). The head as a whole is the parser's header limit, the body its body
// limit, which is the route's, known once the request line is. One reader per request; used by
// one thread at a time.
#ifndef VIGILO_LIB_OVHTTP_REQUEST_READER_H_
#define VIGILO_LIB_OVHTTP_REQUEST_READER_H_

#include <boost/beast/http/basic_parser.hpp>
#include <string>

#include "bounded_server.h"
#include "route_table.h"

namespace ovhttp {

namespace http = boost::beast::http;

// A request refused for passing a bound: its status and the reason the client reads.
struct refusal {
  int status;
  std::string reason;
};
// Each bound's refusal, the same wherever the bound is found passed.
refusal requestLineTooLong(const server_limits& limits);
refusal headTooLong(const server_limits& limits);
refusal bodyTooLong(std::size_t bodyLimit);

class request_reader : public http::basic_parser<true> {
 public:
  request_reader(const server_limits& limits, const route_table& routes);

  // After the parser stopped with an error: the status and reason to refuse the request with.
  // (0 when the error is the parser's own: the caller maps it.)
  int refusalStatus = 0;
  std::string refusalReason;

  request taken;       // filled as the request arrives
  route_match target;  // known from the request line on
  bool requestLineSeen = false;
  bool expectsContinue = false;
  std::size_t bodyLimit;  // in force for this request
  int version = 11;

 private:
  void refuse(refusal why, boost::beast::error_code& ec);

  void on_request_impl(http::verb method, boost::beast::string_view methodText,
                       boost::beast::string_view target, int version,
                       boost::beast::error_code& ec) override;
  void on_response_impl(int, boost::beast::string_view, int, boost::beast::error_code&) override {}
  void on_field_impl(http::field name, boost::beast::string_view nameText,
                     boost::beast::string_view value, boost::beast::error_code& ec) override;
  void on_header_impl(boost::beast::error_code&) override {}
  void on_body_init_impl(const boost::optional<std::uint64_t>& length,
                         boost::beast::error_code& ec) override;
  std::size_t on_body_impl(boost::beast::string_view body, boost::beast::error_code&) override;
  void on_chunk_header_impl(std::uint64_t, boost::beast::string_view,
                            boost::beast::error_code&) override {}
  std::size_t on_chunk_body_impl(std::uint64_t, boost::beast::string_view body,
                                 boost::beast::error_code&) override;
  void on_finish_impl(boost::beast::error_code&) override {}

  const server_limits& limits;
  const route_table& routes;
  std::size_t fields = 0;
};

}  // namespace ovhttp

#endif  // VIGILO_LIB_OVHTTP_REQUEST_READER_H_
