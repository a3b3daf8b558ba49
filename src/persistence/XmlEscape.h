#pragma once

// The escaping of libxml2's text writer, reproduced byte for byte so that the
// byte form can be written without a writer per element:
//
//   element text:     <  &lt;    >  &gt;    &  &amp;    "  &quot;    CR  &#13;
//                     every other byte as it is (control characters and
//                     invalid UTF-8 included; such text does not parse back)
//   attribute values: as text, and also LF &#10;  TAB &#9;, and every
//                     non-ASCII character as &#xHEX; (upper-case, no leading 0)
//   base64:           standard alphabet with padding, CR LF before every group
//                     of four that would make a line longer than 72 characters

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace QelSS::byteform {

void AppendEscapedText(std::string_view text, std::vector<uint8_t>& out);
size_t EscapedTextSize(std::string_view text);

// The size of `text` (valid UTF-8) escaped as an attribute value. A byte that
// does not belong to a valid sequence is counted as the largest escape.
size_t EscapedAttributeSize(std::string_view text);

// `lineBreak` is CR LF as the writer puts it; a parsed document holds LF.
void AppendBase64Lines(const uint8_t* data, size_t size, std::vector<uint8_t>& out,
                       std::string_view lineBreak = "\r\n");
size_t Base64LinesSize(size_t size);

}  // namespace QelSS::byteform
