// The text of an exception record: its separators, type codes and entries. No VM is needed here.
//
// Values are not escaped; whoever reads a record tells text from separators by their order.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace agent::record {

inline constexpr std::string_view kJoin = "%3A";           // joins the parts of an entry
inline constexpr std::string_view kEnd = "%2C";            // ends a primitive or text entry
inline constexpr std::string_view kOpenObject = "!%23";    // opens an object entry
inline constexpr std::string_view kEndObject = "!%23%2C";  // ends an object entry
inline constexpr std::string_view kNull = "NULL";
inline constexpr std::string_view kEndHeader = "%40%41";
inline constexpr std::string_view kEndClassVariables = "%42";
inline constexpr std::string_view kEndArguments = "%43";
inline constexpr std::string_view kEndLocals = "%44";
inline constexpr std::string_view kEndFrame = "%7C";

// The last separator of a section or record, which is dropped, has this many characters.
inline constexpr std::size_t kSeparatorLength = 3;

// What a value is, as its entry says in decimal.
enum class typeCode : int {
  boolean = 0,
  character = 1,
  byte = 2,
  shortInt = 3,
  integer = 4,
  longInt = 5,
  doubleFloat = 6,
  string = 7,
  stringBuilder = 8,
  singleFloat = 9,
  object = 10,
};

// The code of a field or variable with this signature.
typeCode codeOf(std::string_view signature);

// name:code:value,
void appendEntry(std::string& out, std::string_view name, typeCode code, std::string_view value);
void appendNumber(std::string& out, std::string_view name, typeCode code, std::int64_t value);
// The value as "%f" writes it in the C locale.
void appendFloat(std::string& out, std::string_view name, typeCode code, double value);

// An object entry around `captured`.
void appendObject(std::string& out, std::string_view name, std::string_view captured);
// The entry of a null reference: among arguments and locals, and among an object's fields.
void appendNullObject(std::string& out, std::string_view name);
void appendNullField(std::string& out, std::string_view name);

// Drops the separator at the end of a section; a text of three characters or fewer stays.
void dropLastSeparator(std::string& section);

}  // namespace agent::record
