#include "request_reader.h"

#include <boost/system/error_code.hpp>

namespace ovhttp {

refusal requestLineTooLong(const server_limits& limits) {
  return {414, "request line exceeds " + std::to_string(limits.maxRequestLine) + " bytes"};
}

refusal headTooLong(const server_limits& limits) {
  return {431, "request head exceeds " + std::to_string(limits.maxHeadBytes) + " bytes"};
}

refusal bodyTooLong(std::size_t bodyLimit) {
  return {413, "request body exceeds " + std::to_string(bodyLimit) + " bytes"};
}

request_reader::request_reader(const server_limits& limits, const route_table& routes)
    : bodyLimit(limits.maxBodyBytes), limits(limits), routes(routes) {
  header_limit(static_cast<std::uint32_t>(limits.maxHeadBytes));
  body_limit(limits.maxBodyBytes);
}

void request_reader::refuse(refusal why, boost::beast::error_code& ec) {
  refusalStatus = why.status;
  refusalReason = std::move(why.reason);
  ec = boost::system::errc::make_error_code(boost::system::errc::operation_canceled);
}

void request_reader::on_request_impl(http::verb, boost::beast::string_view methodText,
                                     boost::beast::string_view target, int httpVersion,
                                     boost::beast::error_code& ec) {
  requestLineSeen = true;
  version = httpVersion;
  // "METHOD TARGET HTTP/1.1\r\n"
  if (methodText.size() + target.size() + 12 > limits.maxRequestLine) {
    return refuse(requestLineTooLong(limits), ec);
  }
  taken.method.assign(methodText.data(), methodText.size());
  const std::string_view whole(target.data(), target.size());
  const std::size_t question = whole.find('?');
  taken.path = percentDecoded(whole.substr(0, question), false);
  if (question != std::string_view::npos) taken.query = whole.substr(question + 1);
  this->target = routes.find(taken.method, taken.path);
  if (this->target.route != nullptr) {
    taken.wildcard = percentDecoded(this->target.wildcard, false);
    const std::size_t routeLimit = this->target.route->options.maxBody;
    if (routeLimit != 0 && routeLimit < bodyLimit) bodyLimit = routeLimit;
    body_limit(bodyLimit);
  }
}

void request_reader::on_field_impl(http::field name, boost::beast::string_view nameText,
                                   boost::beast::string_view value, boost::beast::error_code& ec) {
  if (++fields > limits.maxHeaderFields) {
    return refuse({431, "more than " + std::to_string(limits.maxHeaderFields) + " header fields"},
                  ec);
  }
  // "Name: value\r\n"
  if (nameText.size() + value.size() + 4 > limits.maxFieldLine) {
    return refuse({431, "header field exceeds " + std::to_string(limits.maxFieldLine) + " bytes"},
                  ec);
  }
  const std::string_view text(value.data(), value.size());
  if (name == http::field::content_encoding && !sameText(text, "identity")) {
    return refuse({415, "request bodies are taken without a content encoding"}, ec);
  }
  if (name == http::field::transfer_encoding && !sameText(text, "chunked")) {
    return refuse({400, "unsupported Transfer-Encoding"}, ec);
  }
  if (name == http::field::expect && sameText(text, "100-continue")) expectsContinue = true;
  taken.headers.emplace_back(std::string(nameText.data(), nameText.size()), std::string(text));
}

void request_reader::on_body_init_impl(const boost::optional<std::uint64_t>& length,
                                       boost::beast::error_code&) {
  // The parser has already held a declared length to the limit.
  if (length) taken.body.reserve(static_cast<std::size_t>(*length));
}

std::size_t request_reader::on_body_impl(boost::beast::string_view body,
                                         boost::beast::error_code&) {
  taken.body.append(body.data(), body.size());
  return body.size();
}

std::size_t request_reader::on_chunk_body_impl(std::uint64_t, boost::beast::string_view body,
                                               boost::beast::error_code&) {
  taken.body.append(body.data(), body.size());
  return body.size();
}

}  // namespace ovhttp
