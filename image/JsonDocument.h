#pragma once
// Reading a JSON document with Boost.PropertyTree's reader, after a check the
// reader does not make itself: its parser descends one recursion level per
// nested array or object, so a document nested some thousands of levels
// deep overflows the stack. Such a document is refused beforehand with the
// reader's own exception type and message form ("<file>(<line>): ...").
#include <string>

#include <boost/property_tree/ptree_fwd.hpp>

// Deepest nesting of arrays and objects accepted; project documents use five.
constexpr int kMaxJsonNesting = 128;

// Throws boost::property_tree::json_parser_error when `text` nests arrays and
// objects deeper than kMaxJsonNesting (brackets inside strings do not count).
void checkJsonNesting(const std::string& text, const std::string& fileName);

// read_json(path, doc) preceded by checkJsonNesting on the file's content.
// A file that cannot be opened fails in read_json as before.
void readJsonDocument(const std::string& path, boost::property_tree::ptree& doc);
