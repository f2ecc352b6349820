// Test support: names parameterised test cases after their `name` field, so that ctest lists
// "Failures/ResponseReaderTest.Reads/truncated_body" instead of an index.
#ifndef VIGILO_TESTING_PARAM_NAME_H_
#define VIGILO_TESTING_PARAM_NAME_H_

#include <gtest/gtest.h>

#include <cctype>
#include <string>

namespace vigilo::test_support {

struct param_name {
  template <typename Param>
  std::string operator()(const ::testing::TestParamInfo<Param>& info) const {
    std::string name;
    for (const char ch : std::string(info.param.name)) {
      name += std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
    }
    return name;
  }
};

}  // namespace vigilo::test_support

#endif  // VIGILO_TESTING_PARAM_NAME_H_
