#pragma once
// Base exceptions and status codes shared by the library and its callers.

#include <exception>
#include <string>

/// Status codes returned by status-reporting operations.
enum : int
{
  QZ_STATUS_OK = 0,
  QZ_STATUS_USER_INTR = 10,
  QZ_STATUS_UNEXPECTED_ERR = -1,
};

/// Thrown by progress operations once the user asked to interrupt the work.
/// The default text is "User interruption"; a given text must outlive the
/// exception (a string literal), so that copying it never throws.
class CUserIntrException : public std::exception
{
public:
  CUserIntrException() noexcept = default;
  explicit CUserIntrException(char const * text) noexcept : m_text(text ? text : "User interruption") {}
  const char * what() const noexcept override { return m_text; }

private:
  char const * m_text = "User interruption";
};

/// General failure with a message; the default text is "Vesca exception".
class CVescaException : public std::exception
{
public:
  CVescaException() : m_text("Vesca exception") {}
  explicit CVescaException(char const * text) : m_text(text ? text : "Vesca exception") {}
  explicit CVescaException(std::string text) : m_text(std::move(text)) {}
  const char * what() const noexcept override { return m_text.c_str(); }

private:
  std::string m_text;
};

/// A warning that can be shown to the user.
class IVescaWarning
{
public:
  virtual ~IVescaWarning() = default;
  virtual std::wstring getMessage() const = 0;
};

namespace VsUt
{
/// A `std::exception` carrying a fixed text. The library throws this where its
/// contract is "a std::exception with text X": callers catch `std::exception`
/// and read `what()`.
class CTextException : public std::exception
{
public:
  explicit CTextException(char const * text) : m_text(text ? text : "") {}
  explicit CTextException(std::string text) : m_text(std::move(text)) {}
  const char * what() const noexcept override { return m_text.c_str(); }

private:
  std::string m_text;
};
} // namespace VsUt
