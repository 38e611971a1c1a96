// zrtool crc1615: the library's 16+15-bit checksum (GetCRC1615) of a file or of standard input.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/zrtool/command.h"
#include "zrobj/zrhash.h"

namespace zrtool {
namespace {

int RunCrc1615(const Args& args);

const Command kCrc1615 = {
    "crc1615", "print the CRC1615 checksum of a file",
    "usage: zrtool crc1615 FILE|-\n\n"
    "Prints GetCRC1615 of the whole FILE (or of standard input for -) in hexadecimal:\n"
    "the CRC-15 (polynomial 8123) in bits 17-31 and the CRC-16/XMODEM in bits 0-15.\n",
    RunCrc1615};

ZRTOOL_COMMAND(kCrc1615);

int RunCrc1615(const Args& args) {
  if (args.size() != 1) return UsageError(kCrc1615, args.empty() ? "missing FILE" : "too many arguments");
  const std::string& path = args[0];
  const bool from_stdin = path == "-";
  std::FILE* in = from_stdin ? stdin : std::fopen(path.c_str(), "rb");
  if (!in) return Fail("cannot open " + path + ": " + std::strerror(errno));

  // The masked registers are the whole CRC state, so the file is checksummed piece by piece.
  const CDualCRC& engine = zr::ChecksumEngine();
  std::vector<BYTE> buffer(1 << 20);
  DWORD crc = 0;
  std::size_t n = 0;
  while ((n = std::fread(buffer.data(), 1, buffer.size(), in)) > 0)
    crc = engine.EvalMore(crc, buffer.data(), static_cast<unsigned>(n));
  const bool failed = std::ferror(in) != 0;
  const int saved_errno = errno;
  if (!from_stdin) std::fclose(in);
  if (failed) return Fail("cannot read " + path + ": " + std::strerror(saved_errno));
  std::printf("%08X\n", crc);
  return 0;
}

}  // namespace
}  // namespace zrtool
