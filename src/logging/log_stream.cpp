#include "logging/log_stream.h"

#include <log4cpp/Category.hh>

LogStream::LogStream(const std::string& category, const int& value) : categoryName(category), priority(value) {}

LogStream::LogStream(const LogStream&) = default;

LogStream& LogStream::operator=(const LogStream&) = default;

LogStream::~LogStream() {
  if (buffer == nullptr) return;
  // The overload for a string takes the text as it is: a percent sign in it is no format directive.
  log4cpp::Category::getInstance(categoryName).log(priority, buffer->str());
  delete buffer;
  buffer = nullptr;
}

std::ostringstream& LogStream::text() {
  if (buffer == nullptr) buffer = new std::ostringstream;
  return *buffer;
}

void LogStream::insert(const char* value) { text() << value; }
