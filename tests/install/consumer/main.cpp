// An outside program: allocates one bit index with the installed library
// and reads it back from the shared table as another process would.
#include <cstdio>
#include <string>

#include "BitMapper/BitMapperSm.h"
#include "MrouteVersion.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s TABLE_FILE\n", argv[0]);
    return 2;
  }
  Kiv::Ptr<BitMapper::VornStatus> table = new BitMapper::VornStatus("bitmapper");
  table->mountIs(argv[1], Vorn::Status::Mode::writer);
  auto config = BitMapper::configFactory(16, false);
  auto status = BitMapper::statusFactory();
  auto sm = BitMapper::bitMapperSmFactory(config, status, table);

  BitMapper::BitMapperKey const key(Wirly::IntfId("Ethernet1"), Wirly::IpGenAddr::v4(0xe0000001u));
  config->allocRequestKeyIs(key);
  config->allocRequestCountInc(1);

  Kiv::Ptr<BitMapper::VornStatus> reader = new BitMapper::VornStatus("bitmapper");
  reader->mountIs(argv[1], Vorn::Status::Mode::reader);
  BitMapper::BitIndex const index = status->bitIndex(key);
  bool const shared = reader->bitIndexMap(index).bitMapperKey() == key;
  std::printf("libmroute %s: bit index %u, %s in the shared table\n", MROUTE_VERSION, unsigned(index.value()),
              shared ? "found" : "missing");
  return index.isValid() && shared ? 0 : 1;
}
