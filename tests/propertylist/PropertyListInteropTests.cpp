// Interoperability with Python's plistlib (driven through plist_peer.py): it
// must read what the codec writes, and the codec must read what it writes, in
// both formats, with kinds, order and bits intact.
#include <gtest/gtest.h>
#include <unistd.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "PropertyListTestSupport.h"
#include "platform/PropertyList.h"

namespace loomwork {
namespace {

namespace fs = std::filesystem;

std::string hex(const void* bytes, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < n; ++i)
    out += {kDigits[static_cast<const uint8_t*>(bytes)[i] >> 4], kDigits[static_cast<const uint8_t*>(bytes)[i] & 15]};
  return out;
}

// The value as an expression over plist_peer.py's helpers.
std::string python(const Value& v) {
  if (v.isBoolean()) return v.boolValue() ? "True" : "False";
  if (v.isInteger()) return std::to_string(v.integerValue());
  if (v.isReal()) {
    uint8_t be[8];  // the bits, big-endian
    for (int i = 0; i < 8; ++i) be[i] = static_cast<uint8_t>(std::bit_cast<uint64_t>(v.doubleValue()) >> (56 - 8 * i));
    return "R('" + hex(be, 8) + "')";
  }
  if (v.isDate()) {
    // Whole seconds and the fraction apart: seconds times 10^6 can exceed
    // what a double holds exactly.
    double whole = std::floor(v.dateValue());
    int64_t micro = static_cast<int64_t>(whole) * 1000000 + std::llround((v.dateValue() - whole) * 1e6);
    return "D(" + std::to_string(micro) + ")";
  }
  if (v.isString()) return "S('" + hex(v.string().data(), v.string().size()) + "')";
  if (v.isData()) return "B('" + hex(v.data().data(), v.data().size()) + "')";
  std::string out;
  if (auto array = v.tryArray()) {
    for (const Value& element : *array) out += python(element) + ", ";
    return '[' + out + ']';
  }
  for (const auto& [key, value] : v.dictionary()) out += python(key) + ": " + python(value) + ", ";
  return '{' + out + '}';
}

void writeFile(const fs::path& path, const void* bytes, size_t n) {
  std::ofstream file(path, std::ios::binary);
  file.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(n));
}

Data readFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return Data(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

fs::path peerScript() {
  if (const char* dir = std::getenv("LOOMWORK_TEST_DATA")) return fs::path(dir) / "plist_peer.py";
  return fs::path(__FILE__).parent_path() / "plist_peer.py";
}

TEST(PropertyListInterop, PythonPlistlibReadsWhatWeWriteAndWritesWhatWeRead) {
  if (std::system("python3 -c 'import plistlib' >/dev/null 2>&1") != 0) GTEST_SKIP() << "python3 is not available";
  const fs::path dir = fs::temp_directory_path() / ("loomwork-plist-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  std::ofstream manifest(dir / "manifest");

  struct Incoming {
    fs::path file;
    Value expected;
  };
  std::vector<Incoming> incoming;

  constexpr uint64_t kSeeds = 60;
  for (uint64_t seed = 1; seed <= kSeeds; ++seed) {
    for (auto format : {PropertyListFormat::Binary, PropertyListFormat::XML}) {
      const bool isXML = format == PropertyListFormat::XML;
      const std::string tag = std::to_string(seed) + (isXML ? "-xml" : "-binary");
      // Ours to Python. (plistlib writes a carriage return in XML as a line
      // feed, so only this direction carries them.)
      // plistlib turns binary dates into microseconds through a double, which
      // is exact for fractions of a second only near 1970.
      testing::PlistGenerator outward(seed, {.xmlSafe = isXML, .maximumDepth = 5, .narrowDates = !isXML});
      Value sent = outward.value();
      Data bytes = testing::write(sent, format);
      writeFile(dir / ("out-" + tag), bytes.data(), bytes.size());
      manifest << "check " << (dir / ("out-" + tag)).string() << ' ' << python(sent) << '\n';
      // Python to ours.
      testing::PlistGenerator inward(seed + 1000, {.xmlSafe = isXML, .allowCR = false, .maximumDepth = 5});
      Value expected = inward.value();
      fs::path file = dir / ("in-" + tag);
      manifest << "write " << (isXML ? "xml " : "binary ") << file.string() << ' ' << python(expected) << '\n';
      incoming.push_back({file, expected});
    }
  }
  // More than 65,536 objects each way: four-byte references.
  Array many;
  for (int64_t i = 0; i < 70000; ++i) many.push_back(Value(i * 3 - 1000));
  Value large(std::move(many));
  Data largeBytes = testing::write(large, PropertyListFormat::Binary);
  writeFile(dir / "out-large", largeBytes.data(), largeBytes.size());
  manifest << "check " << (dir / "out-large").string() << ' ' << python(large) << '\n';
  manifest << "write binary " << (dir / "in-large").string() << ' ' << python(large) << '\n';
  incoming.push_back({dir / "in-large", large});
  // plistlib writes integers from 2^63 to 2^64 - 1 in 16 bytes; they do not fit.
  manifest << "write binary " << (dir / "in-huge").string() << " [2**64 - 1, -1]\n";
  manifest.close();

  const std::string command = "python3 '" + peerScript().string() + "' '" + (dir / "manifest").string() + "' > '" +
                              (dir / "report").string() + "' 2>&1";
  int status = std::system(command.c_str());
  Data report = readFile(dir / "report");
  EXPECT_EQ(status, 0) << std::string(report.begin(), report.end());

  for (const Incoming& in : incoming) {
    SCOPED_TRACE(in.file.filename().string());  // names the seed
    std::string error;
    auto value = testing::read(readFile(in.file), &error);
    ASSERT_TRUE(value) << error;
    EXPECT_EQ(testing::differenceBetween(*value, in.expected), "");
  }
  std::string error;
  EXPECT_FALSE(testing::read(readFile(dir / "in-huge"), &error));
  EXPECT_EQ(error, "Binary property list has an integer out of range");

  fs::remove_all(dir);
}

}  // namespace
}  // namespace loomwork
