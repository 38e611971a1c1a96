// libFuzzer target: arbitrary bytes parsed as a shared INI file, every value read plainly and as a
// settings file, then one update applied and the whole file read again.
//
// Input: byte 0 = flags (bit 0: section from the file, bit 1: key from the file, bit 2: write
// through CSetFile, bit 3: also delete a key of the file), byte 1 = which section and key of the
// file, byte 2 = length L of the names, then L bytes "section 0x1F key 0x1F value", then the
// file. Checked: every listed section and key reads; an update fails exactly when a name or value
// cannot be written; after it, the file holds what it held before with the value set (read back
// unchanged) and the key deleted, and nothing else changed; a refused update changes nothing.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/inifile.h"
#include "platform/settingsfile.h"
#include "platform/text.h"

namespace os = zr::os;

namespace {

constexpr char kSeparator = '\x1F';

void Check(bool condition) {
  if (!condition) __builtin_trap();
}

std::string Lower(std::string_view s) {
  std::string out(s);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  return out;
}

// What the file holds, by section and key as the case-insensitive lookups see them.
using Name = std::pair<std::string, std::string>;
struct Document {
  std::vector<std::string> sections;  // lower-cased, sorted
  std::map<Name, std::string> values;
  bool operator==(const Document&) const = default;
};

Name NameOf(std::string_view section, std::string_view key) {
  return {Lower(os::IniTrimName(section)), Lower(os::IniTrimName(key))};
}

// Lists and reads everything, plainly and through CSetFile; every listed key must read.
Document ReadAll(const std::string& path, const os::CSetFile& settings) {
  Document doc;
  for (const std::string& section : os::IniSections(path)) {
    Check(os::IniHasSection(path, section));
    // The unnamed section has no header: it is there while it has keys, so only its keys count.
    if (!section.empty()) doc.sections.push_back(Lower(section));
    for (const std::string& key : os::IniKeys(path, section)) {
      const auto value = os::IniRead(path, section, key);
      Check(value.has_value());
      doc.values[NameOf(section, key)] = *value;
      WCHAR buffer[64];
      int number = 0;
      if (section.empty()) continue;  // CSetFile has no unnamed section
      Check(settings.ReadSettingString(section.c_str(), key.c_str(), buffer, 64));
      settings.ReadSettingInt(section.c_str(), key.c_str(), &number);
      settings.ReadSettingBool(section.c_str(), key.c_str(), &number);
    }
  }
  std::sort(doc.sections.begin(), doc.sections.end());
  return doc;
}

// NUL bytes end lines in the file, as line breaks do.
bool HasLineBreak(std::string_view s) {
  return s.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

// The names and values IniUpdate is documented to refuse.
bool Writable(const os::IniOp& op) {
  if (HasLineBreak(op.section) || op.section.find(']') != std::string::npos) return false;
  const std::string_view key = os::IniTrimName(op.key);
  if (key.empty() || HasLineBreak(key) || key.find('=') != std::string_view::npos) return false;
  if (key.front() == ';' || key.front() == '#' || key.front() == '[') return false;
  return op.kind != os::IniOp::Kind::kSet || !HasLineBreak(op.value);
}

// Profile files strip one pair of quotes around a value, so such a value reads back without them.
bool QuoteWrapped(std::string_view v) { return v.size() >= 2 && v.front() == '"' && v.back() == '"'; }

struct Update {
  os::IniOp set{os::IniOp::Kind::kSet, "", "", ""};
  std::optional<os::IniOp> remove;
  bool through_settings = false;
};

// The value CSetFile is given: the wide form of the value, as a C string.
std::u16string WideValue(const Update& u) {
  std::u16string wide = os::Utf8ToUtf16(u.set.value);
  return wide.substr(0, wide.find(u'\0'));
}

// The value as the file holds it: CSetFile escapes it; a plain write keeps it as given, and a
// pair of quotes around it is read as quoting.
std::string Stored(const Update& u) {
  if (u.through_settings) return os::EscapeSettingValue(os::Utf16ToUtf8(WideValue(u)));
  const std::string& v = u.set.value;
  return QuoteWrapped(v) ? v.substr(1, v.size() - 2) : v;
}

bool Apply(const Update& u, const std::string& path, os::CSetFile& settings) {
  if (u.through_settings) {
    const std::u16string value = WideValue(u);
    if (!settings.WriteSettingString(u.set.section.c_str(), u.set.key.c_str(), value.c_str())) return false;
    return !u.remove || os::IniUpdate(path, {&*u.remove, 1});
  }
  std::vector<os::IniOp> ops{u.set};
  if (u.remove) ops.push_back(*u.remove);
  return os::IniUpdate(path, ops);
}

// Whether the update must succeed: the names and the value as it is written are writable.
bool Expected(const Update& u) {
  if (u.through_settings && (u.set.section.empty() || u.set.key.empty())) return false;
  os::IniOp written = u.set;
  if (u.through_settings) written.value = Stored(u);
  return Writable(written) && (!u.remove || Writable(*u.remove));
}

// A string written through CSetFile reads back exactly.
void CheckReadBack(const Update& u, const os::CSetFile& settings) {
  const std::u16string value = WideValue(u);
  std::u16string buffer(value.size() + 1, u'?');
  const auto length = static_cast<UINT>(buffer.size());
  Check(settings.ReadSettingString(u.set.section.c_str(), u.set.key.c_str(), buffer.data(), length));
  Check(buffer.c_str() == value);
}

// The file after a successful update: the value set, the key deleted, the section there.
Document Predict(const Document& before, const Update& u) {
  Document expected = before;
  const Name set = NameOf(u.set.section, u.set.key);
  expected.values[set] = Stored(u);
  if (u.remove) expected.values.erase(NameOf(u.remove->section, u.remove->key));
  std::vector<std::string>& sections = expected.sections;
  if (!set.first.empty() && !std::binary_search(sections.begin(), sections.end(), set.first))
    sections.insert(std::lower_bound(sections.begin(), sections.end(), set.first), set.first);
  return expected;
}

void CheckUpdate(const Update& u, const std::string& path, os::CSetFile& settings) {
  const Document before = ReadAll(path, settings);
  const bool done = Apply(u, path, settings);
  const Document after = ReadAll(path, settings);
  if (!Expected(u)) {
    Check(!done && after == before);
    return;
  }
  Check(done);
  Check(after == Predict(before, u));
  if (u.through_settings) CheckReadBack(u, settings);
}

std::string_view Field(std::string_view& names) {
  const auto end = names.find(kSeparator);
  const std::string_view field = names.substr(0, end);
  names.remove_prefix(end == std::string_view::npos ? names.size() : end + 1);
  return field;
}

// Replaces the names by a section and key of the file, as the flags ask, and picks a key to delete.
void PickFromFile(Update& u, std::uint8_t flags, std::uint8_t pick, const std::string& path) {
  const std::vector<std::string> sections = os::IniSections(path);
  if (sections.empty()) return;
  const std::string& section = sections[pick % sections.size()];
  const std::vector<std::string> keys = os::IniKeys(path, section);
  if (flags & 1) u.set.section = section;
  if (keys.empty()) return;
  if (flags & 2) u.set.key = keys[pick % keys.size()];
  const std::string& key = keys[(pick / 16) % keys.size()];
  if (flags & 8 && NameOf(section, key) != NameOf(u.set.section, u.set.key))
    u.remove = os::IniOp{os::IniOp::Kind::kDeleteKey, section, key, ""};
}

// Chooses the update from the flags, the names and the file's own sections and keys.
Update MakeUpdate(std::uint8_t flags, std::uint8_t pick, std::string_view names, const std::string& path) {
  Update u;
  u.through_settings = flags & 4;
  u.set.section = Field(names);
  u.set.key = Field(names);
  u.set.value = names;
  if (u.through_settings) {  // CSetFile takes C strings
    u.set.section = u.set.section.c_str();
    u.set.key = u.set.key.c_str();
  }
  PickFromFile(u, flags, pick, path);
  return u;
}

std::string TempPath() {
  const std::string dir = "/tmp/zrobj-fuzz-inifile-" + std::to_string(::getpid());
  ::mkdir(dir.c_str(), 0700);
  return dir + "/settings.ini";
}

bool WriteInput(const std::string& path, const std::uint8_t* data, std::size_t size) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) return false;
  const bool written = std::fwrite(data, 1, size, file) == size;
  return std::fclose(file) == 0 && written;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3 || size > 1u << 20) return 0;
  const std::size_t names_size = std::min<std::size_t>(data[2], size - 3);
  const std::string_view names(reinterpret_cast<const char*>(data + 3), names_size);
  static const std::string path = TempPath();
  static const std::u16string wide_path = os::Utf8ToUtf16(path);
  if (!WriteInput(path, data + 3 + names_size, size - 3 - names_size)) return 0;
  os::IniDropCache();  // the file is rewritten within the cache's settling time
  os::CSetFile settings(wide_path.c_str());
  Check(settings.IsUsable());
  CheckUpdate(MakeUpdate(data[0], data[1], names, path), path, settings);
  return 0;
}
