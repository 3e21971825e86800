#pragma once

// XML documents and fragments with the one parser configuration that all of the I/O server link uses, and what is read
// from their nodes: texts, attributes, dates.

#include <string>
#include <string_view>

#include "Messages/IRaiseMsg.h"
#include "base/Date.h"
#include "base/Variant.h"
#include "xml/XmlDom.h"

namespace quelm {

// A new, empty document.
XmlDocument NewXMLDocument();

// The parsed document; Nothing on failure, which objRaiseMsg hears of unless it is null. Raises nothing.
XmlDocument LoadXMLDocument(IRaiseMsg* objRaiseMsg, std::string_view strXML);
// The same for any number of elements and texts side by side: they stand below the document's own element.
XmlDocument LoadXMLFragment(IRaiseMsg* objRaiseMsg, std::string_view strXMLFragment);

// Text of the first match, of an attribute; "" for Nothing and for no match. Raise what the selection raises (5 for an
// invalid XPath).
std::string GetNodeText(const XmlNode& objNode, std::string_view strXPath);
std::string GetAttributeText(const XmlNode& objNode, std::string_view strAttributeName);

// Empty for Nothing and for no match, else always a Date: the zero date when the text is empty or no date. Raises what
// the selection raises.
Variant GetNodeDate(const XmlNode& objNode, std::string_view strXPath);

// Date and time of a text such as "2013-04-05T06:07:08.123", the fraction dropped; the zero date when it is none.
// Raises nothing.
Date XMLTextToDate(std::string_view strText);

}  // namespace quelm
