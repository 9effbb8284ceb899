#pragma once

#include <string_view>
#include <utility>

#include <boost/json/array.hpp>
#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/object.hpp>
#include <boost/json/string.hpp>

namespace quillet::Json {

/// What a handler of `PieceParser` declares for the parser: the limits of the document model, so
/// that a text passes exactly when a parse into values would, and the types of its events.
struct DocumentModelHandler {
  static constexpr std::size_t max_object_size = boost::json::object::max_size();
  static constexpr std::size_t max_array_size = boost::json::array::max_size();
  static constexpr std::size_t max_key_size = boost::json::string::max_size();
  static constexpr std::size_t max_string_size = boost::json::string::max_size();
  using error_code = boost::json::error_code;
  using string_view = boost::json::string_view;
};

/// Boost.JSON's parser with the options of `DocumentReader` (the defaults), over a text that
/// arrives in pieces and must be exactly one document, for readers that handle its events
/// themselves. Used from one thread at a time.
template <class Handler>
class PieceParser {
 public:
  /// `arguments` construct the handler.
  template <class... Arguments>
  explicit PieceParser(Arguments&&... arguments)
      : parser_(boost::json::parse_options{}, std::forward<Arguments>(arguments)...) {}

  /// Reads the next piece; false once the text read so far cannot start a document, or goes on
  /// after a whole one, after which pieces are ignored.
  bool read(std::string_view piece) {
    if (failed_) return false;
    boost::system::error_code error;
    const std::size_t used = parser_.write_some(true, piece.data(), piece.size(), error);
    failed_ = error || used < piece.size();
    return !failed_;
  }

  /// Whether the pieces read form exactly one document; the parser is spent afterwards.
  bool finish() {
    bool whole = false;
    if (!failed_) {
      boost::system::error_code error;
      parser_.write_some(false, nullptr, 0, error);
      whole = !error;
    }
    failed_ = true;
    return whole;
  }

  Handler& handler() noexcept { return parser_.handler(); }

 private:
  boost::json::basic_parser<Handler> parser_;
  bool failed_ = false;
};

}  // namespace quillet::Json
