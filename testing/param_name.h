// Test support: names parameterised cases after their `name` field, so that ctest lists
// "Failures/ResponseReaderTest.Reads/truncated_body" rather than an index.
#ifndef VIGILO_TESTING_PARAM_NAME_H_
#define VIGILO_TESTING_PARAM_NAME_H_

#include <gtest/gtest.h>

#include <cctype>
#include <string>

namespace vigilo::test_support {

inline constexpr auto paramName = [](const auto& info) {
  std::string name = info.param.name;
  for (char& ch : name) ch = std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
  return name;
};

}  // namespace vigilo::test_support

#endif  // VIGILO_TESTING_PARAM_NAME_H_
