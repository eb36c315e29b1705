// Writes the seed corpora: a few valid messages and frames of each shape
// the parsers branch on, for the fuzzers to mutate from.
//   fuzz_seed_gen <corpus dir>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "dhcp/DhcpCodec.h"

using namespace Tavrin;

namespace {

using Bytes = std::vector<uint8_t>;

bool write(const std::string& path, const Bytes& b) {
   std::ofstream out(path, std::ios::binary);
   out.write(reinterpret_cast<const char*>(b.data()), std::streamsize(b.size()));
   return bool(out);
}

constexpr IpAddr kGiaddr = IpAddr::fromBytes(10, 0, 0, 1);
constexpr IpAddr kClient = IpAddr::fromBytes(10, 0, 0, 9);
constexpr EthAddr kMac = EthAddr::fromU64(0x020000000009ULL);

// An answer whose options continue into file and sname (overload 3), with
// option 92 split across all three fields.
Bytes overloadedAnswer() {
   Bytes b = buildDhcpAnswer({.messageType = 13, .xid = 5, .giaddr = kGiaddr})->bytes();
   const Bytes options = {53, 1, 13, 52, 1, 3, 92, 4, 10, 0, 0, 1, 255};
   const Bytes file = {92, 4, 10, 0, 0, 2, 51, 4, 0, 0, 1, 0, 255};
   const Bytes sname = {92, 2, 10, 0, 92, 2, 0, 3, 91, 4, 0, 0, 0, 7, 255};
   b.resize(240);
   std::copy(sname.begin(), sname.end(), b.begin() + 44);
   std::copy(file.begin(), file.end(), b.begin() + 108);
   b.insert(b.end(), options.begin(), options.end());
   return b;
}

}  // namespace

int main(int argc, char** argv) {
   if (argc != 2) {
      std::fprintf(stderr, "usage: %s <corpus dir>\n", argv[0]);
      return 2;
   }
   const std::string dhcp = std::string(argv[1]) + "/fuzz_dhcp_parse/";
   const std::string ip = std::string(argv[1]) + "/fuzz_ip_parse/";

   std::vector<IpAddr> many;
   for (uint32_t i = 1; i <= 70; ++i) many.push_back(IpAddr(0x0a000000 + i));
   Bytes qinq = buildEthIpv4Frame(kMac, kClient, EthAddr(), kGiaddr, 100)->bytes();
   const Bytes outer = {0x88, 0xa8, 0x00, 0xc8};
   qinq.insert(qinq.begin() + 12, outer.begin(), outer.end());
   Bytes arp = buildEthIpv4Frame(kMac, kClient, EthAddr(), kGiaddr)->bytes();
   arp[13] = 0x06;

   const std::pair<std::string, Bytes> seeds[] = {
       {dhcp + "query_by_mac",
        buildDhcpLeaseQuery(true, kGiaddr, kGiaddr, kMac, IpAddr(), 1)->bytes()},
       {dhcp + "query_by_ip",
        buildDhcpLeaseQuery(false, kGiaddr, kGiaddr, EthAddr(), kClient, 2)->bytes()},
       {dhcp + "answer_active",
        buildDhcpAnswer({13, 3, kClient, kMac, kGiaddr, 3600, 10, std::vector{kClient}, kGiaddr})
            ->bytes()},
       {dhcp + "answer_split_92",
        buildDhcpAnswer({13, 4, kClient, kMac, kGiaddr, {}, {}, many, {}})->bytes()},
       {dhcp + "answer_overloaded", overloadedAnswer()},
       {ip + "untagged", buildEthIpv4Frame(kMac, kClient, EthAddr(), kGiaddr)->bytes()},
       {ip + "tagged", buildEthIpv4Frame(kMac, kClient, EthAddr(), kGiaddr, 100)->bytes()},
       {ip + "qinq", qinq},
       {ip + "arp", arp},
   };
   for (const auto& [path, bytes] : seeds) {
      if (!write(path, bytes)) {
         std::fprintf(stderr, "cannot write %s\n", path.c_str());
         return 1;
      }
   }
   return 0;
}
