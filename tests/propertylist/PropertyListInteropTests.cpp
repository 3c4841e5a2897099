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

#include "PropertyListTestSupport.h"
#include "loomwork/platform/PropertyList.h"

namespace loomwork {
namespace {

namespace fs = std::filesystem;

template <class Bytes>
std::string hex(const Bytes& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (auto c : bytes) out += {kDigits[static_cast<uint8_t>(c) >> 4], kDigits[static_cast<uint8_t>(c) & 15]};
  return out;
}

// The value as an expression over plist_peer.py's helpers.
std::string python(const Value& v) {
  if (v.isBoolean()) return v.boolValue() ? "True" : "False";
  if (v.isInteger()) return std::to_string(v.integerValue());
  if (v.isReal()) return "R(" + std::to_string(std::bit_cast<uint64_t>(v.doubleValue())) + ")";
  if (v.isDate()) {
    // Whole seconds and the fraction apart: seconds times 10^6 can exceed
    // what a double holds exactly.
    double whole = std::floor(v.dateValue());
    int64_t micro = static_cast<int64_t>(whole) * 1000000 + std::llround((v.dateValue() - whole) * 1e6);
    return "D(" + std::to_string(micro) + ")";
  }
  if (v.isString()) return "S('" + hex(v.string()) + "')";
  if (v.isData()) return "B('" + hex(v.data()) + "')";
  std::string out;
  if (auto array = v.tryArray()) {
    for (const Value& element : *array) out += python(element) + ", ";
    return '[' + out + ']';
  }
  for (const auto& [key, value] : v.dictionary()) out += python(key) + ": " + python(value) + ", ";
  return '{' + out + '}';
}

Data readFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return Data(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

TEST(PropertyListInterop, PythonPlistlibReadsWhatWeWriteAndWritesWhatWeRead) {
  if (std::system("python3 -c 'import plistlib' >/dev/null 2>&1") != 0) GTEST_SKIP() << "python3 is not available";
  const fs::path dir = fs::temp_directory_path() / ("loomwork-plist-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  std::ofstream manifest(dir / "manifest");
  // Ours to Python: `check <file> <expected>`; Python to ours: `write <format> <file> <value>`.
  auto check = [&](const std::string& name, const Value& sent, PropertyListFormat format) {
    Data bytes = testing::write(sent, format);
    std::ofstream(dir / name, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    manifest << "check " << (dir / name).string() << ' ' << python(sent) << '\n';
  };
  std::vector<std::pair<fs::path, Value>> incoming;
  auto request = [&](const std::string& name, const Value& expected, PropertyListFormat format) {
    manifest << "write " << (format == PropertyListFormat::XML ? "xml " : "binary ") << (dir / name).string() << ' '
             << python(expected) << '\n';
    incoming.emplace_back(dir / name, expected);
  };

  for (uint64_t seed = 1; seed <= 60; ++seed) {
    for (auto format : {PropertyListFormat::Binary, PropertyListFormat::XML}) {
      const bool isXML = format == PropertyListFormat::XML;
      const std::string tag = std::to_string(seed) + (isXML ? "-xml" : "-binary");
      // plistlib writes a carriage return in XML as a line feed, so only our
      // direction carries them; it turns binary dates into microseconds through
      // a double, exact for fractions of a second only near 1970.
      check("out-" + tag,
            testing::PlistGenerator(seed, {.xmlSafe = isXML, .maximumDepth = 5, .narrowDates = !isXML}).value(),
            format);
      request("in-" + tag,
              testing::PlistGenerator(seed + 1000, {.xmlSafe = isXML, .allowCR = false, .maximumDepth = 5}).value(),
              format);
    }
  }
  // More than 65,536 objects each way: four-byte references.
  Array many;
  for (int64_t i = 0; i < 70000; ++i) many.push_back(Value(i * 3 - 1000));
  check("out-large", Value(many), PropertyListFormat::Binary);
  request("in-large", Value(std::move(many)), PropertyListFormat::Binary);
  // plistlib writes integers from 2^63 to 2^64 - 1 in 16 bytes; they do not fit.
  manifest << "write binary " << (dir / "in-huge").string() << " [2**64 - 1, -1]\n";
  manifest.close();

  const char* data = std::getenv("LOOMWORK_TEST_DATA");
  const fs::path script = (data ? fs::path(data) : fs::path(__FILE__).parent_path()) / "plist_peer.py";
  const std::string command = "python3 '" + script.string() + "' '" + (dir / "manifest").string() + "' > '" +
                              (dir / "report").string() + "' 2>&1";
  int status = std::system(command.c_str());
  Data report = readFile(dir / "report");
  EXPECT_EQ(status, 0) << std::string(report.begin(), report.end());

  for (const auto& [file, expected] : incoming) {
    SCOPED_TRACE(file.filename().string());  // names the seed
    std::string error;
    auto value = testing::read(readFile(file), &error);
    ASSERT_TRUE(value) << error;
    EXPECT_EQ(testing::differenceBetween(*value, expected), "");
  }
  std::string error;
  EXPECT_FALSE(testing::read(readFile(dir / "in-huge"), &error));
  EXPECT_EQ(error, "Binary property list has an integer out of range");

  fs::remove_all(dir);
}

}  // namespace
}  // namespace loomwork
