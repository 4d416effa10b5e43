// A message under construction. A caller takes a LogStream by value from a channel, inserts into the temporary, and the
// message goes out when the temporary dies at the end of the statement: one statement, one line. A temporary belongs to
// the one thread and the one statement that made it, so nothing here is locked.
#pragma once

#include <sstream>
#include <string>
#include <type_traits>

class LogStream {
 public:
  /// `categoryName` names the log4cpp category that receives the message, `priority` is a log4cpp::Priority value.
  LogStream(const std::string& categoryName, const int& priority);

  // A copy shares the buffer's pointer. That is sound because only temporaries ever hold a buffer, and a temporary is
  // not copied once text has gone into it.
  LogStream(const LogStream& other);
  LogStream& operator=(const LogStream& other);

  /// Sends what was inserted; a stream that received nothing, not even an empty string, logs nothing.
  virtual ~LogStream();

  /// Inserts as the standard stream does.
  template <typename T>
  LogStream& operator<<(const T& value) {
    using Decayed = std::decay_t<const T>;
    if constexpr (std::is_same_v<Decayed, const char*> || std::is_same_v<Decayed, char*>) {
      insert(value);  // one piece of code for string literals of every length
    } else {
      text() << value;
    }
    return *this;
  }

 private:
  std::ostringstream& text();
  void insert(const char* value);

  std::ostringstream* buffer = nullptr;  // owned; made by the first insertion
  std::string categoryName;
  int priority;
};
