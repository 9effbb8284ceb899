#include "quillet/model/StartDocument.h"

#include <array>
#include <cstdint>
#include <string>

#include <boost/json/value_stack.hpp>

#include "quillet/model/Json.h"
#include "quillet/model/JsonPieces.h"

namespace quillet::VendorList {
namespace {

// What an open container is to the start document. Containers in a skipped value have no role:
// they are only counted.
enum class Role : std::uint8_t {
  plain,       // kept whole
  root,        // the document's object
  vendors,     // the root's "vendors" object
  entry,       // an object member of "vendors"
  urls,        // an entry's "urls" array
  url,         // an object of "urls" before one whose "privacy" is a string
  emptiedUrl,  // an object of "urls" after that one: keeps no member
};

struct Frame {
  Role role = Role::plain;
  bool object = false;
  std::size_t dropped = 0;       // members skipped so far
  bool privacyFound = false;     // urls: an earlier object's "privacy" was a string
  bool privacyIsString = false;  // url: the last "privacy" so far is a string
};

bool keptEntryMember(std::string_view key) noexcept {
  switch (key.size()) {
    case 2:
      return key == "id";
    case 4:
      return key == "name" || key == "urls";
    case 8:
      return key == "purposes";
    case 9:
      return key == "policyUrl";
    case 14:
      return key == "legIntPurposes";
    case 15:
      return key == "specialFeatures";
    default:
      return false;
  }
}

// Builds the start document on a value stack, as Boost.JSON's own parser builds a whole one, and
// leaves out what the start does not read.
class StartHandler : public Json::DocumentModelHandler {
 public:
  explicit StartHandler(boost::json::storage_ptr storage) { stack_.reset(std::move(storage)); }

  boost::json::value release() { return stack_.release(); }

  bool on_document_begin(error_code&) { return true; }
  bool on_document_end(error_code&) { return true; }
  bool on_object_begin(error_code&) { return open(true); }
  bool on_object_end(std::size_t members, error_code&) {
    if (const Frame* frame = close()) {
      stack_.push_object(members - frame->dropped);
      if (frame->role == Role::url && frame->privacyIsString)
        frames_[depth_ - 1].privacyFound = true;
    }
    return true;
  }
  bool on_array_begin(error_code&) { return open(false); }
  bool on_array_end(std::size_t elements, error_code&) {
    if (close() != nullptr) stack_.push_array(elements);
    return true;
  }
  bool on_key_part(string_view part, std::size_t, error_code&) {
    if (skipped_ == 0) key_.append(part.data(), part.size());
    return true;
  }
  bool on_key(string_view last, std::size_t, error_code&) {
    if (skipped_ > 0) return true;
    std::string_view key(last.data(), last.size());
    if (!key_.empty()) {
      key_.append(last.data(), last.size());
      key = key_;
    }
    member(key);
    key_.clear();
    return true;
  }
  bool on_string_part(string_view part, std::size_t, error_code&) {
    if (skipped_ == 0 && !skipNext_) text_.append(part.data(), part.size());
    return true;
  }
  bool on_string(string_view last, std::size_t, error_code&) {
    if (!scalar(true)) return true;
    if (text_.empty()) {
      stack_.push_string(last);
    } else {
      text_.append(last.data(), last.size());
      stack_.push_string(text_);
      text_.clear();
    }
    return true;
  }
  bool on_number_part(string_view, error_code&) { return true; }
  bool on_int64(std::int64_t number, string_view, error_code&) {
    if (scalar(false)) stack_.push_int64(number);
    return true;
  }
  bool on_uint64(std::uint64_t number, string_view, error_code&) {
    if (scalar(false)) stack_.push_uint64(number);
    return true;
  }
  bool on_double(double number, string_view, error_code&) {
    if (scalar(false)) stack_.push_double(number);
    return true;
  }
  bool on_bool(bool value, error_code&) {
    if (scalar(false)) stack_.push_bool(value);
    return true;
  }
  bool on_null(error_code&) {
    if (scalar(false)) stack_.push_null();
    return true;
  }
  bool on_comment_part(string_view, error_code&) { return true; }
  bool on_comment(string_view, error_code&) { return true; }

 private:
  // Boost.JSON's parser opens at most this many containers at once, by default 32.
  static constexpr std::size_t kMostFrames = 64;

  // Whether the value that begins is kept; it is then no longer pending.
  bool begin(bool isString) {
    if (skipped_ > 0) return false;
    if (skipNext_) {
      skipNext_ = false;
      return false;
    }
    if (nextIsPrivacy_) {
      frames_[depth_ - 1].privacyIsString = isString;
      nextIsPrivacy_ = false;
    }
    return true;
  }

  bool scalar(bool isString) { return begin(isString); }

  // The role that a container beginning now takes.
  Role roleOfNext(bool object) const noexcept {
    if (depth_ == 0) return object ? Role::root : Role::plain;
    const Frame& parent = frames_[depth_ - 1];
    if (!parent.object) {
      if (parent.role != Role::urls || !object) return Role::plain;
      return parent.privacyFound ? Role::emptiedUrl : Role::url;
    }
    const bool fits = nextRole_ == Role::urls ? !object : object;
    return fits ? nextRole_ : Role::plain;
  }

  bool open(bool object) {
    if (skipped_ > 0 || skipNext_) {
      skipNext_ = false;
      ++skipped_;
      return true;
    }
    const Role role = roleOfNext(object);
    begin(false);
    if (depth_ == kMostFrames) return false;  // beyond any depth the parser allows
    frames_[depth_++] = Frame{.role = role, .object = object};
    return true;
  }

  // The frame of the container that ends, or nullptr when it was skipped.
  const Frame* close() {
    if (skipped_ > 0) {
      --skipped_;
      return nullptr;
    }
    return &frames_[--depth_];
  }

  // A member's key: pushed, or its member skipped.
  void member(std::string_view key) {
    Frame& frame = frames_[depth_ - 1];
    bool kept = true;
    nextRole_ = Role::plain;
    switch (frame.role) {
      case Role::root:
        if (key == "vendors") nextRole_ = Role::vendors;
        break;
      case Role::vendors:
        nextRole_ = Role::entry;
        break;
      case Role::entry:
        kept = keptEntryMember(key);
        if (key == "urls") nextRole_ = Role::urls;
        break;
      case Role::url:
        kept = key == "privacy";
        nextIsPrivacy_ = kept;
        break;
      case Role::emptiedUrl:
        kept = false;
        break;
      case Role::plain:
      case Role::urls:
        break;
    }
    if (kept) {
      stack_.push_key(key);
    } else {
      skipNext_ = true;
      ++frame.dropped;
    }
  }

  boost::json::value_stack stack_;
  std::array<Frame, kMostFrames> frames_{};
  std::size_t depth_ = 0;
  std::size_t skipped_ = 0;  // containers open inside a skipped value
  bool skipNext_ = false;    // the value after the last key is skipped
  bool nextIsPrivacy_ = false;
  Role nextRole_ = Role::plain;  // the role of an object member that is a container
  std::string key_;              // a key that arrives in parts
  std::string text_;             // a string that arrives in parts
};

}  // namespace

struct StartDocumentReader::State {
  explicit State(std::size_t expectedTextBytes)
      // The start document takes about a third of what the whole one would.
      : storage(expectedTextBytes / 3), parser(storage.storage()) {}

  Json::DocumentStorage storage;
  Json::PieceParser<StartHandler> parser;
};

StartDocumentReader::StartDocumentReader(std::size_t expectedTextBytes)
    : state_(std::make_unique<State>(expectedTextBytes)) {}
StartDocumentReader::~StartDocumentReader() = default;

bool StartDocumentReader::read(std::string_view piece) {
  return state_->parser.read(piece);
}

std::optional<boost::json::value> StartDocumentReader::finish() {
  std::optional<boost::json::value> value;
  if (state_->parser.finish()) value = state_->parser.handler().release();
  state_->storage.seal();
  return value;
}

}  // namespace quillet::VendorList
