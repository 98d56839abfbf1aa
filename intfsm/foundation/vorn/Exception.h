// The framework's error types, and the fixed texts that mutators raise.
//
//   throw Vorn::RangeException(Vorn::nullParameterText("intfStatus", "KernelOperState::IntfStatusDir"));
//   throw Vorn::ErrnoException(errno, "");   // a failed system call; message may be empty
#pragma once

#include <exception>
#include <string>

#include "intfsm/foundation/vorn/String.h"

namespace Vorn {

class Exception : public std::exception {
 public:
  explicit Exception(std::string message) : message_(std::move(message)) {}
  char const * what() const noexcept override { return message_.c_str(); }
  std::string const & message() const noexcept { return message_; }

 private:
  std::string message_;
};

// A value outside what an attribute accepts; the attribute is left unchanged.
class RangeException : public Exception {
 public:
  using Exception::Exception;
};

// A name (or a named child) already in use with other constructor arguments.
class NameInUseException : public Exception {
 public:
  using Exception::Exception;
};

// A failed system call: the errno it left, and a message that may be empty.
class ErrnoException : public Exception {
 public:
  ErrnoException(int errorNumber, std::string message)
      : Exception(std::move(message)), errorNumber_(errorNumber) {}
  int errorNumber() const noexcept { return errorNumber_; }

 private:
  int errorNumber_;
};

// "null _<attr> parameter to mutator for <ownerType>::<attr> not allowed" and one double-quote character.
std::string nullParameterText(char const * attribute, char const * ownerType);

// The text of re-creating a child whose constructor argument differs from the current one.
std::string reinstantiationText(char const * argument, std::string const & newValue, std::string const & currentValue);

}  // namespace Vorn
