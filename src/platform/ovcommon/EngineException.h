// The exception type of the engine libraries and of vigilo for engine failures: a copyable
// carrier of one message text. Defined in libovcommon so that one type crosses every library
// boundary of the process.
#ifndef VIGILO_SRC_PLATFORM_OVCOMMON_ENGINEEXCEPTION_H_
#define VIGILO_SRC_PLATFORM_OVCOMMON_ENGINEEXCEPTION_H_

#include <exception>
#include <string>

namespace com::orvex {

class EngineException : public std::exception {
 public:
  // Copies `text`; a null text is taken as empty.
  explicit EngineException(const char* text);
  explicit EngineException(std::string text);
  ~EngineException() override;

  // The text given at construction; valid as long as this object.
  const char* what() const noexcept override;

 private:
  std::string text;
};

}  // namespace com::orvex

#endif  // VIGILO_SRC_PLATFORM_OVCOMMON_ENGINEEXCEPTION_H_
