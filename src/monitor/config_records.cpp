#include "monitor/config_records.h"

// Reads what stands before the delimiter and takes the delimiter too; true when there was one.
static bool readUpTo(std::FILE* file, int delimiter, std::string& piece) {
  piece.clear();
  int byte = std::fgetc(file);
  while (byte != EOF && byte != delimiter) {
    piece.push_back(static_cast<char>(byte));
    byte = std::fgetc(file);
  }
  return byte == delimiter;
}

bool readRecord(std::FILE* file, std::string& key, std::string& value) {
  const bool separated = readUpTo(file, '=', key);
  if (!separated && key.empty()) return false;
  if (separated) readUpTo(file, '\n', value);
  return true;
}
