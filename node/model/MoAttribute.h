/** Making, comparing and showing the contents of attributes. */
#ifndef VELA_NODE_MO_ATTRIBUTE_H
#define VELA_NODE_MO_ATTRIBUTE_H

#include <Poco/Dynamic/Var.h>

#include <string>
#include <string_view>
#include <vector>

#include "model/MoValue.h"
#include "model/ModelSchema.h"

namespace VelaNode {

/**
 * The make... functions check the type against the schema and throw Vela::VelaException(VELA_INVALID) with the bare
 * reason in one line; the caller knows the object's name. Contents of attributes that are kept in the model file must
 * be valid there (UTF-8 without control characters but tab and line end). No text of theirs shows a secret.
 */

/** Copies what crossed the C interface. Types must be the schema's own, integers within their type. */
MoAttributePtr makeAttribute(const MoAttributeDef& definition, const VelaOamSpiMoAttribute_3T& content);
/** Takes C++ values: exactly one for a single attribute, any number for a sequence. */
MoAttributePtr makeAttribute(const MoAttributeDef& definition, const std::vector<MoValue>& values);
/** A text as an operator gives it: a struct or sequence is JSON, anything else is the plain value. Not empty. */
MoAttributePtr makeAttributeFromText(const MoAttributeDef& definition, const std::string& text);
/** A parsed JSON value. Null makes an attribute without value (a sequence: an empty one). */
MoAttributePtr makeAttributeFromJson(const MoAttributeDef& definition, const Poco::Dynamic::Var& json);
/** An attribute without value; a sequence is empty. */
MoAttributePtr makeUnsetAttribute(const MoAttributeDef& definition);

/** Reads one plain value as it stands in the model file. Blanks around numbers do not matter. */
MoValue parseScalar(VelaOamSpiMoTypeT type, std::span<const MoEnumName> enumNames, const std::string& text);
/** The reverse of parseScalar. */
std::string formatScalar(const VelaOamSpiMoValue_3T& value, std::span<const MoEnumName> enumNames);

bool isEqual(const VelaOamSpiMoAttribute_3T& left, const VelaOamSpiMoAttribute_3T& right);

/** As JSON; secrets show as "********", an attribute without value is null, what is no UTF-8 becomes U+FFFD. */
Poco::Dynamic::Var toJson(const MoAttributeDef& definition, const VelaOamSpiMoAttribute_3T& attribute);

/** A text from outside, quoted for a message: one line, of bearable length. */
std::string quoted(std::string_view text);

}  // namespace VelaNode
#endif
