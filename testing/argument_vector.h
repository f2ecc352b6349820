// Test support: an argument vector for code that takes (argc, argv). It owns its texts, which stay
// in place while it lives (settings may point into them); argv() ends with a null pointer.
#ifndef VIGILO_TESTING_ARGUMENT_VECTOR_H_
#define VIGILO_TESTING_ARGUMENT_VECTOR_H_

#include <string>
#include <vector>

namespace vigilo::test_support {

class argument_vector {
 public:
  explicit argument_vector(std::vector<std::string> texts) : texts(std::move(texts)) {
    for (std::string& text : this->texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
  }
  argument_vector(const argument_vector&) = delete;
  argument_vector& operator=(const argument_vector&) = delete;
  int argc() const { return static_cast<int>(texts.size()); }
  char** argv() { return pointers.data(); }

 private:
  std::vector<std::string> texts;
  std::vector<char*> pointers;
};

}  // namespace vigilo::test_support

#endif  // VIGILO_TESTING_ARGUMENT_VECTOR_H_
