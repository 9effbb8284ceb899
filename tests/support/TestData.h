#pragma once

// What every test program reads and writes besides the library: files of testdata/, golden
// files, case files, temporary folders and environment variables.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/json/object.hpp>
#include <gtest/gtest.h>

#include "quillet/model/Json.h"
#include "quillet/storage/KeyValueStore.h"

namespace quillet::testing {

/// The bytes of a file; none when it cannot be read.
inline std::string fileText(const std::filesystem::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

/// The bytes of a file under testdata/.
inline std::string testdataText(const std::string& name) {
  const std::filesystem::path path = std::string(QUILLET_TESTDATA_DIR) + "/" + name;
  if (!std::filesystem::exists(path)) throw std::runtime_error("testdata/" + name + " is missing");
  return fileText(path);
}

/// Whether `text` is the whole of testdata/golden/<name>, naming the first line that differs when
/// not; with QUILLET_UPDATE_GOLDEN=1 in the environment it rewrites that file instead (review the
/// difference before committing it).
inline ::testing::AssertionResult matchesGolden(const std::string& name, const std::string& text) {
  if (std::getenv("QUILLET_UPDATE_GOLDEN") != nullptr) {
    std::ofstream(std::string(QUILLET_TESTDATA_DIR) + "/golden/" + name, std::ios::binary) << text;
  }
  const std::string golden = testdataText("golden/" + name);
  if (text == golden) return ::testing::AssertionSuccess();
  std::istringstream have(text);
  std::istringstream want(golden);
  std::string got;
  std::string expected;
  int line = 1;
  while (std::getline(have, got) && std::getline(want, expected) && got == expected)
    ++line;
  return ::testing::AssertionFailure() << "golden/" << name << " line " << line << ":\n  is     "
                                       << got << "\n  golden " << expected;
}

/// A JSON object from text; throws (failing the test) when it is not one.
inline boost::json::object jsonObject(const std::string& text) {
  auto value = Json::parse(text);
  if (!value || !value->is_object()) throw std::runtime_error("not a JSON object: " + text);
  return std::move(value->get_object());
}

/// One case of a case file: its "== " line without the marker, and the lines up to the next.
struct Case {
  std::string title;
  std::string body;
};

/// The cases of testdata/<name>, each starting at a line "== title"; lines before the first are
/// the file's own description.
inline std::vector<Case> cases(const std::string& name) {
  std::vector<Case> out;
  std::istringstream text(testdataText(name));
  for (std::string line; std::getline(text, line);) {
    if (line.starts_with("== ")) {
      out.push_back({line.substr(3), {}});
    } else if (!out.empty()) {
      out.back().body += line + "\n";
    }
  }
  return out;
}

/// A fresh directory that is removed with everything in it when the object goes away.
class TempDirectory {
 public:
  TempDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "quillet-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const std::filesystem::path& path() const noexcept { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

/// Another store, with the requests to persist and the piecewise reads counted.
class CountingStore final : public KeyValueStore {
 public:
  explicit CountingStore(std::shared_ptr<KeyValueStore> inner) : inner_(std::move(inner)) {}
  std::optional<StoreValue> get(std::string_view key) const override { return inner_->get(key); }
  void set(std::string_view key, StoreValue value) override { inner_->set(key, std::move(value)); }
  void remove(std::string_view key) override { inner_->remove(key); }
  bool synchronize() override { return ++synchronized, inner_->synchronize(); }
  bool readBytesInPieces(
      std::string_view key,
      const std::function<bool(std::span<const std::uint8_t>)>& sink) const override {
    return ++piecewiseReads, inner_->readBytesInPieces(key, sink);
  }
  std::optional<std::size_t> byteCount(std::string_view key) const override {
    return inner_->byteCount(key);
  }
  std::optional<std::uint64_t> revision(std::string_view key) const override {
    return inner_->revision(key);
  }

  int synchronized = 0;
  mutable int piecewiseReads = 0;

 private:
  std::shared_ptr<KeyValueStore> inner_;
};

/// Sets an environment variable for the life of the object, then restores what was there.
class ScopedEnvironment {
 public:
  ScopedEnvironment(std::string name, const std::string& value) : name_(std::move(name)) {
    if (const char* old = std::getenv(name_.c_str())) saved_ = old;
    set(value);
  }
  ~ScopedEnvironment() { saved_ ? set(*saved_) : (void)unsetenv(name_.c_str()); }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  void set(const std::string& value) { setenv(name_.c_str(), value.c_str(), 1); }

 private:
  std::string name_;
  std::optional<std::string> saved_;
};

}  // namespace quillet::testing
