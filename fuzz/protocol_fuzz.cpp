// Walks any bytes with the public header, in a block of their exact size, and builds each good Packet anew.

#include <hubkeeper/protocol.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

static void require(bool holds) {
  if (!holds) std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> bundle(data, data + size);
  hubkeeper_walk walk = {bundle.data(), bundle.size()};
  hubkeeper_piece piece;
  std::size_t reached = 0;
  for (bool ended = false; hubkeeper_next(&walk, &piece) != 0; ended = piece.good == 0) {
    require(!ended && piece.bytes == bundle.data() + reached && piece.remaining == bundle.size() - reached);
    const hubkeeper_header& header = piece.header;
    require(hubkeeper_find_opcode(header.opcode)->first <= header.opcode);
    if (piece.good == 0) {
      require(piece.remaining < 5 ? header.length == 65535 : header.length < 5 || header.length > piece.remaining);
      reached = bundle.size();
      continue;
    }
    std::vector<std::uint8_t> again(header.length, 0xEE);
    const std::size_t payload = header.length - 5U;
    require(hubkeeper_build(again.data(), again.size() - 1, header.tag, header.opcode, piece.bytes + 5, payload) == 0);
    require(hubkeeper_build(again.data(), again.size(), header.tag, header.opcode, piece.bytes + 5, payload) ==
            header.length);
    require(std::memcmp(again.data(), piece.bytes, again.size()) == 0);
    reached += header.length;
  }
  require(reached == bundle.size() && walk.remaining == 0);
  return 0;
}
