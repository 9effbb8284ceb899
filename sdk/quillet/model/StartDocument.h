#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>

#include <boost/json/value.hpp>

namespace quillet::VendorList {

/// Reads a vendor list text that arrives in pieces into its start document: the document less
/// what the start does not read, built in well under half the time of the whole. Each entry of the
/// "vendors" object keeps only "id", "name", "policyUrl", "purposes", "legIntPurposes",
/// "specialFeatures" and "urls"; the objects of "urls" keep only "privacy", and those after the
/// first whose "privacy" is a string keep nothing. Everything else is whole. So the facts, the
/// models, the raw entries' special features and the stacks read from it are those of the whole
/// document. Accepts exactly the texts that `Json::DocumentReader` accepts. Used from one thread
/// at a time; the document may be read on any thread.
class StartDocumentReader {
 public:
  /// `expectedTextBytes`, when known, sizes the document's first block of storage.
  explicit StartDocumentReader(std::size_t expectedTextBytes = 0);
  ~StartDocumentReader();
  StartDocumentReader(const StartDocumentReader&) = delete;
  StartDocumentReader& operator=(const StartDocumentReader&) = delete;

  /// Reads the next piece; false once the text read so far cannot start a JSON document, after
  /// which pieces are ignored.
  bool read(std::string_view piece);
  /// The start document, when the pieces read form exactly one JSON document; the reader is
  /// spent afterwards.
  std::optional<boost::json::value> finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace quillet::VendorList
