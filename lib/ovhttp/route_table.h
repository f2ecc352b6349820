// The routes of a server, and what a request line reaches: a route, or the refusal of a path that
// no route serves (404) or that no route serves with that method (405). Filled before the server
// serves, then only read, from any thread.
#ifndef VIGILO_LIB_OVHTTP_ROUTE_TABLE_H_
#define VIGILO_LIB_OVHTTP_ROUTE_TABLE_H_

#include <string>
#include <string_view>
#include <vector>

#include "bounded_server.h"

namespace ovhttp {

struct route_entry {
  std::string method;
  std::string path;  // without its final "*" when `prefix`
  bool prefix = false;
  handler serve;
  route_options options;
};

struct route_match {
  const route_entry* route = nullptr;  // null: refused with `status`
  int status = 200;
  std::string allow;     // for a 405: the methods the path takes
  std::string wildcard;  // what the route's "*" stood for
};

class route_table {
 public:
  void add(route_entry entry);
  // HEAD reaches a GET route.
  route_match find(std::string_view method, std::string_view path) const;

 private:
  std::vector<route_entry> routes;
};

// `text` with its %XX escapes decoded, and with `plusIsBlank` '+' as a blank; an escape that is
// not one stays as it is.
std::string percentDecoded(std::string_view text, bool plusIsBlank);

// Whether two texts are the same but for the case of their ASCII letters, as header names and
// the values of some headers are compared.
bool sameText(std::string_view a, std::string_view b);

}  // namespace ovhttp

#endif  // VIGILO_LIB_OVHTTP_ROUTE_TABLE_H_
