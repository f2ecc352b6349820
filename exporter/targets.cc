#include "targets.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace exporter {

namespace {

bool nameByte(unsigned char c) { return std::isalnum(c) || c == '-' || c == '_'; }

// Why `host` is no host to look up, or "" when it is a name; it becomes the name's own form.
std::string checkName(std::string& host) {
  if (host.ends_with('.')) host.pop_back();  // the root, which names the same host
  if (host.empty()) return "no host";
  if (host.size() > 253) return "a name is at most 253 bytes";
  std::size_t labelStart = 0;
  for (std::size_t i = 0; i <= host.size(); ++i) {
    if (i < host.size() && host[i] != '.') {
      if (!nameByte(static_cast<unsigned char>(host[i]))) {
        return "a host is an address or a name of letters, digits, '-' and '_'";
      }
      continue;
    }
    if (i == labelStart || i - labelStart > 63 || host[labelStart] == '-') {
      return "a label of a name is 1 to 63 bytes, not beginning with '-'";
    }
    labelStart = i + 1;
  }
  // A name never ends in a number: the C library would read 127.1 or 2130706433 as 127.0.0.1, and
  // 0x7f000001 too, and a name server would be asked for none of them.
  const std::string_view last = std::string_view(host).substr(host.rfind('.') + 1);
  const bool hex = host.find('.') == std::string::npos && last.size() > 2 &&
                   (last.starts_with("0x") || last.starts_with("0X")) &&
                   std::all_of(last.begin() + 2, last.end(),
                               [](unsigned char c) { return std::isxdigit(c) != 0; });
  if (hex ||
      std::all_of(last.begin(), last.end(), [](unsigned char c) { return std::isdigit(c); })) {
    return "write an address in full, such as 127.0.0.1 or [::1]";
  }
  std::transform(host.begin(), host.end(), host.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return "";
}

}  // namespace

target_parse parseTarget(std::string_view text) {
  std::optional<target> t = ovnet::host_port::parse(text);
  if (!t) return {std::nullopt, "expected HOST:PORT"};
  const bool bracketed = text.starts_with('[');
  if (const auto a = ovnet::address::parse(t->host)) {
    if ((a->family() == AF_INET6) == bracketed) return {t, ""};
  }
  if (bracketed) return {std::nullopt, "brackets hold an IPv6 address"};
  std::string why = checkName(t->host);
  if (!why.empty()) return {std::nullopt, why};
  return {t, ""};
}

bool target_rules::add(std::string_view rule) {
  const auto slash = rule.find('/');
  if (const auto a = ovnet::address::parse(rule.substr(0, slash))) {
    const int bits = a->family() == AF_INET ? 32 : 128;
    int prefix = bits;
    if (slash != std::string_view::npos) {
      const std::string_view text = rule.substr(slash + 1);
      const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), prefix);
      if (text.empty() || ec != std::errc() || end != text.data() + text.size() || prefix < 0 ||
          prefix > bits) {
        return false;
      }
    }
    ranges.push_back({*a, prefix});
    return true;
  }
  if (slash != std::string_view::npos) return false;
  if (const target_parse t = parseTarget(rule); t.parsed) {
    names.push_back(*t.parsed);
    return true;
  }
  std::string host(rule);  // a name on any port
  if (!checkName(host).empty()) return false;
  names.push_back({host, 0});
  return true;
}

bool target_rules::inRanges(const ovnet::address& address) const {
  static const target_rules loopback = [] {
    target_rules rules;
    rules.add("127.0.0.0/8");
    rules.add("::1");
    return rules;
  }();
  const auto& all = names.empty() && ranges.empty() ? loopback.ranges : ranges;
  const std::string_view bytes = address.bytes();
  for (const range& r : all) {
    if (r.address.family() != address.family()) continue;
    const std::string_view allowed = r.address.bytes();
    const int whole = r.prefix / 8;
    const int rest = r.prefix % 8;
    if (bytes.substr(0, whole) != allowed.substr(0, whole)) continue;
    const unsigned mask = (0xff00u >> rest) & 0xffu;
    if (rest == 0 ||
        ((static_cast<unsigned char>(bytes[whole]) ^ static_cast<unsigned char>(allowed[whole])) &
         mask) == 0) {
      return true;
    }
  }
  return false;
}

bool target_rules::named(const target& t) const {
  return std::any_of(names.begin(), names.end(), [&t](const target& n) {
    return n.host == t.host && (n.port == 0 || n.port == t.port);
  });
}

bool target_rules::allowsAll(const std::vector<ovnet::address>& addresses) const {
  return !addresses.empty() && std::all_of(addresses.begin(), addresses.end(),
                                           [this](const ovnet::address& a) { return inRanges(a); });
}

}  // namespace exporter
