#include "OPC/OPC DA Server/UtilityXMLDOMFunctions.h"

#include <algorithm>

#include "OPC/OPC DA Server/UtilityFunctions.h"
#include "base/Conversion.h"
#include "base/RuntimeError.h"

namespace quelm {

namespace {

constexpr std::int32_t excerptLength = 40;
constexpr std::string_view fragmentTemplate =
    "<Z76335016_A23E_E011_A164_0019B97C8595>$</Z76335016_A23E_E011_A164_0019B97C8595>";

void report(IRaiseMsg* sink, const std::string& text, std::string_view xml) {
    if (sink != nullptr) {
        sink->RaiseMsg(msgtype::error, text + TruncateText(xml, excerptLength));
    }
}

std::string wrapFragment(std::string_view fragment) {
    std::string wrapped(fragmentTemplate);
    return wrapped.replace(wrapped.find('$'), 1, fragment);
}

Date dateOfNode(const XmlNode& node) {
    try {
        const std::string text = node.text();
        return text.empty() ? Date{} : XMLTextToDate(text);
    } catch (const std::exception&) {
        // A node that is there always yields a date, if only the zero date.
        return Date{};
    }
}

}  // namespace

XmlDocument NewXMLDocument() {
    XmlDocument document = XmlDocument::create();
    document.setAsync(false);
    document.setValidateOnParse(false);
    document.setResolveExternals(false);
    document.setPreserveWhiteSpace(false);
    document.setProperty("NewParser", true);
    document.setProperty("NormalizeAttributeValues", true);
    return document;
}

XmlDocument LoadXMLDocument(IRaiseMsg* objRaiseMsg, std::string_view strXML) {
    try {
        XmlDocument document = NewXMLDocument();
        if (document.loadXML(strXML)) {
            return document;
        }
        report(objRaiseMsg, "XMLDOM-0001: Cannot parse XML document; ", strXML);
    } catch (...) {
        report(objRaiseMsg, "XMLDOM-0002: Cannot load XML; " + currentError().text() + "; ", strXML);
    }
    return XmlDocument();
}

XmlDocument LoadXMLFragment(IRaiseMsg* objRaiseMsg, std::string_view strXMLFragment) {
    try {
        XmlDocument document = LoadXMLDocument(objRaiseMsg, wrapFragment(strXMLFragment));
        if (document.isNothing()) {
            report(objRaiseMsg, "XMLDOM-0005: Cannot parse XML fragment; ", strXMLFragment);
        }
        return document;
    } catch (...) {
        report(objRaiseMsg, "XMLDOM-0006: Cannot load XML; " + currentError().text() + "; ", strXMLFragment);
    }
    return XmlDocument();
}

std::string GetNodeText(const XmlNode& objNode, std::string_view strXPath) {
    if (objNode.isNothing()) {
        return {};
    }
    const XmlNode found = objNode.selectSingleNode(strXPath);
    return found.isNothing() ? std::string() : found.text();
}

std::string GetAttributeText(const XmlNode& objNode, std::string_view strAttributeName) {
    return GetNodeText(objNode, "@" + std::string(strAttributeName));
}

Variant GetNodeDate(const XmlNode& objNode, std::string_view strXPath) {
    if (objNode.isNothing()) {
        return Variant();
    }
    const XmlNode found = objNode.selectSingleNode(strXPath);
    return found.isNothing() ? Variant() : Variant(dateOfNode(found));
}

Date XMLTextToDate(std::string_view strText) {
    std::string text(strText);
    if (text.find('T') != std::string::npos) {
        std::replace(text.begin(), text.end(), 'T', ' ');
        text.resize(std::min(text.rfind('.'), text.size()));
    }
    return parseDate(text).value_or(Date{});
}

}  // namespace quelm
