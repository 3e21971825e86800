// The XML that the I/O servers send, and the paths by which it is read. What cannot be read is Nothing and is reported;
// what was read can be walked over.

#include "FuzzInput.h"
#include "OPC/OPC DA Server/UtilityXMLDOMFunctions.h"

namespace quelm::fuzz {
namespace {

class Sink final : public IRaiseMsg {
 public:
    void RaiseMsg(std::int32_t type, std::string_view text) override {
        require(type == msgtype::error && text.starts_with("XMLDOM-000"), "a failure of the XML helper");
        ++lines;
    }
    int lines = 0;
};

void readNodes(const XmlNode& node, std::string_view path) {
    mayRaise({errors::invalidCall, errors::objectNotSet}, "a wrong path and nothing else", [&] {
        GetNodeText(node, path);
        const Variant date = GetNodeDate(node, path);
        require(date.isEmpty() || date.kind() == VariantKind::Date, "a date or nothing");
        const XmlNodeList list = node.selectNodes(path);
        for (std::size_t i = 0; i < list.length(); ++i) {
            const std::string text = list.item(i).text();
            require(GetNodeText(list.item(i), ".") == text, "a node is itself");
        }
        require(list.item(list.length()).isNothing(), "nothing behind the end");
    });
}

void walk(const XmlDocument& document, const Sink& sink, std::string_view path) {
    require(document.isNothing() == (sink.lines > 0), "either a document or a report");
    if (!document.isNothing()) {
        const XmlNode root = document.documentElement();
        require(!root.isNothing(), "a document has an element");
        readNodes(root, path);
        readNodes(root, "//*");
        readNodes(root, "Value/@*");
        mayRaise({errors::invalidCall}, "a wrong name and nothing else", [&] { GetAttributeText(root, path); });
    }
}

}  // namespace

void runInput(Input input) {
    const std::string path = input.text();
    const ExactCopy xml(input.rest());
    XMLTextToDate(xml.text());
    Sink ofDocument;
    walk(LoadXMLDocument(&ofDocument, xml.text()), ofDocument, path);
    Sink ofFragment;
    walk(LoadXMLFragment(&ofFragment, xml.text()), ofFragment, path);
    LoadXMLDocument(nullptr, xml.text());
}

}  // namespace quelm::fuzz
