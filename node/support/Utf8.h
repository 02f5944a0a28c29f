/** What the model and its output need to know of UTF-8. */
#ifndef VELA_NODE_UTF8_H
#define VELA_NODE_UTF8_H

#include <string>
#include <string_view>

namespace VelaNode {

/** Whether a text can stand in an XML 1.0 document: UTF-8, no control characters but tab and line end. */
bool isXmlText(std::string_view text);
/** The text with U+FFFD in place of every octet that does not belong to a UTF-8 sequence. */
std::string toValidUtf8(std::string_view text);

}  // namespace VelaNode
#endif
