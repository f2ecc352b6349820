#include "route_table.h"

#include <strings.h>

namespace ovhttp {

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool sameText(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string percentDecoded(std::string_view text, bool plusIsBlank) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hexDigit(text[i + 1]) >= 0 &&
        hexDigit(text[i + 2]) >= 0) {
      decoded += static_cast<char>(hexDigit(text[i + 1]) * 16 + hexDigit(text[i + 2]));
      i += 2;
    } else {
      decoded += plusIsBlank && text[i] == '+' ? ' ' : text[i];
    }
  }
  return decoded;
}

void route_table::add(route_entry entry) {
  if (!entry.path.empty() && entry.path.back() == '*') {
    entry.path.pop_back();
    entry.prefix = true;
  }
  routes.push_back(std::move(entry));
}

route_match route_table::find(std::string_view method, std::string_view path) const {
  const std::string_view wanted = method == "HEAD" ? "GET" : method;
  route_match match;
  match.status = 404;
  for (const route_entry& r : routes) {
    const bool reached = r.prefix ? path.starts_with(r.path) &&
                                        path.find('/', r.path.size()) == std::string_view::npos
                                  : path == r.path;
    if (!reached) continue;
    if (r.method == wanted) {
      match.route = &r;
      match.status = 200;
      match.wildcard = r.prefix ? std::string(path.substr(r.path.size())) : "";
      return match;
    }
    match.status = 405;
    match.allow +=
        (match.allow.empty() ? "" : ", ") + r.method + (r.method == "GET" ? ", HEAD" : "");
  }
  return match;
}

std::string request::header(std::string_view name) const {
  for (const auto& [field, value] : headers) {
    if (sameText(field, name)) return value;
  }
  return "";
}

std::optional<std::string> request::param(std::string_view name) const {
  std::string_view rest = query;
  while (!rest.empty()) {
    const std::size_t end = rest.find('&');
    const std::string_view pair = rest.substr(0, end);
    rest = end == std::string_view::npos ? "" : rest.substr(end + 1);
    const std::size_t equals = pair.find('=');
    if (percentDecoded(pair.substr(0, equals), true) != name) continue;
    return equals == std::string_view::npos ? "" : percentDecoded(pair.substr(equals + 1), true);
  }
  return std::nullopt;
}

}  // namespace ovhttp
