#pragma once

// The XML document, node and node list that the I/O server link reads values from. Handles are small values: nodes and
// lists keep their document's contents alive, and a default-made handle is the absent object (Nothing).

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

struct XmlTree;
class XmlNodeList;

class XmlNode {
 public:
    XmlNode() = default;
    bool isNothing() const { return node_ == nullptr; }

    // Character data of the node and all its descendants (of an attribute: its value), without the white space at both
    // ends. Raises RuntimeError 91 on Nothing.
    std::string text() const;

    // First match of an XPath 1.0 expression relative to this node, in document order; Nothing without a match. Raises
    // RuntimeError 5 when the expression is no XPath or gives no nodes, 91 on Nothing.
    XmlNode selectSingleNode(std::string_view xpath) const;
    // All matches in document order; raises as selectSingleNode does.
    XmlNodeList selectNodes(std::string_view xpath) const;

 private:
    friend class XmlDocument;
    XmlNode(std::shared_ptr<const XmlTree> tree, void* node) : tree_(std::move(tree)), node_(node) {}
    std::vector<void*> evaluate(std::string_view xpath) const;

    std::shared_ptr<const XmlTree> tree_;
    void* node_ = nullptr;
};

class XmlNodeList {
 public:
    XmlNodeList() = default;
    explicit XmlNodeList(std::vector<XmlNode> nodes) : nodes_(std::move(nodes)) {}
    std::size_t length() const { return nodes_.size(); }
    // By zero-based index; Nothing behind the end.
    XmlNode item(std::size_t index) const { return index < nodes_.size() ? nodes_[index] : XmlNode(); }

 private:
    std::vector<XmlNode> nodes_;
};

class XmlDocument {
 public:
    XmlDocument() = default;
    // A new, empty document. Raises std::bad_alloc only.
    static XmlDocument create();
    bool isNothing() const { return state_ == nullptr; }

    // The four settings and two named properties. Loading is always synchronous, never validates, never fetches
    // anything and always normalises attribute values: asking for the opposite raises RuntimeError 5, as does an
    // unknown property.
    void setAsync(bool on);
    void setValidateOnParse(bool on);
    void setResolveExternals(bool on);
    // Off: text nodes of white space only are dropped and node texts trimmed. On (as in a new document): both are kept.
    void setPreserveWhiteSpace(bool on);
    void setProperty(std::string_view name, bool on);

    // Parses UTF-8 text, whatever encoding its declaration names. False, and the document is empty, for text that is
    // not well-formed, has a document type declaration (nobody sends one but an attacker), is nested deeper than 256
    // elements or longer than 64 MiB. Raises std::bad_alloc, and the document is empty, when memory runs out: there is
    // never a half document.
    bool loadXML(std::string_view text);

    // The outermost element; Nothing in an empty document. Raises RuntimeError 91 on Nothing.
    XmlNode documentElement() const;

 private:
    struct State {
        bool preserveWhiteSpace = true;
        std::shared_ptr<const XmlTree> tree;
    };
    State& state() const;

    std::shared_ptr<State> state_;
};

}  // namespace quelm
