#include "ovcommon/EngineException.h"

#include <utility>

namespace com::orvex {

EngineException::EngineException(const char* text) : text(text != nullptr ? text : "") {}
EngineException::EngineException(std::string text) : text(std::move(text)) {}
EngineException::~EngineException() = default;

const char* EngineException::what() const noexcept { return text.c_str(); }

}  // namespace com::orvex
