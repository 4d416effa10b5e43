#include "monitor/config_records.h"

ConfigRecords::ConfigRecords(const char* path) : file(fopen64(path, "re")) {}

ConfigRecords::~ConfigRecords() {
  if (file != nullptr) std::fclose(file);
}

bool ConfigRecords::next(std::string& key, std::string& value) {
  const bool separated = readUpTo('=', key);
  if (!separated && key.empty()) return false;
  if (separated) readUpTo('\n', value);
  return true;
}

// Reads what stands before the delimiter and takes the delimiter too; true when there was one.
bool ConfigRecords::readUpTo(int delimiter, std::string& piece) {
  piece.clear();
  int byte = std::fgetc(file);
  while (byte != EOF && byte != delimiter) {
    piece.push_back(static_cast<char>(byte));
    byte = std::fgetc(file);
  }
  return byte == delimiter;
}
