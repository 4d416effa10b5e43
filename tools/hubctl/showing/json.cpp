#include "showing/json.h"

#include <nlohmann/json.hpp>

#include "showing/output.h"
#include "showing/text.h"

namespace {

constexpr const char* kindNames[] = {"packet", "bounce", "state", "bad"};

}  // namespace

void printJson(const nlohmann::json& json) {
  print("{}\n", json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

nlohmann::json pieceJson(const Piece& piece) {
  nlohmann::json json = {{"kind", kindNames[static_cast<int>(piece.kind)]}, {"length", piece.length}};
  if (piece.kind == Kind::packet) json["tag"] = piece.tag;
  if (piece.kind == Kind::packet || piece.kind == Kind::bounce) {
    json["opcode"] = piece.opcode;
    json["name"] = hubkeeper_find_opcode(piece.opcode)->name;
  }
  if (piece.kind == Kind::state) json["state"] = hubkeeper_read16(piece.payload.data());
  if (piece.kind != Kind::bounce) json["payload"] = hexOf(piece.payload);
  return json;
}
