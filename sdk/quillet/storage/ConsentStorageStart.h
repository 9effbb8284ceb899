#pragma once

#include <memory>
#include <optional>
#include <string>

#include <boost/json/object.hpp>

// The library's own reading of the stored vendor list for a start; hosts use `loadGVL`.
namespace quillet::ConsentStorage {

/// The cached vendor list as a start reads it: its start document
/// (`VendorList::StartDocumentReader`), in well under half the time of `loadGVL`, and the text it
/// was read from, from which the whole list reads as `loadGVL` would give it. Nothing when
/// `loadGVL` would give nothing.
struct StartGVL {
  boost::json::object document;
  std::shared_ptr<const std::string> text;
};
std::optional<StartGVL> loadStartGVL();

/// `loadStartGVL`, begun at construction on a thread of its own, so that a start reads the stored
/// list while it downloads its configuration. Nothing is read early when the store cannot tell
/// whether a value changed (no `revision`), nor when the process runs on one core. Made and taken
/// on any one thread at a time.
class EarlyStartGVL {
 public:
  EarlyStartGVL();
  /// Stops the early read within a slice of its text and waits for its thread.
  ~EarlyStartGVL();
  EarlyStartGVL(const EarlyStartGVL&) = delete;
  EarlyStartGVL& operator=(const EarlyStartGVL&) = delete;

  /// What `loadStartGVL()` gives now: the early read, once it is done, when the installed store
  /// and its revision of the list are still those it read; else a read now.
  std::optional<StartGVL> take();

 private:
  struct Read;
  std::unique_ptr<Read> read_;
};

}  // namespace quillet::ConsentStorage
