#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <new>
#include <utility>

#include "base/RuntimeError.h"
#include "xml/XmlDom.h"

namespace quelm {

namespace {

constexpr std::size_t maxDocumentBytes = std::size_t{64} * 1024 * 1024;
// Elements within elements; far beyond what an I/O server writes, and what the stack bears in any case.
constexpr int maxDepth = 256;
constexpr const char* whiteSpace = " \t\r\n";

template <auto Free>
struct Deleter {
    template <class T>
    void operator()(T* object) const {
        Free(object);
    }
};
using ParsedDocument = std::unique_ptr<xmlDoc, Deleter<xmlFreeDoc>>;
using ParserContext = std::unique_ptr<xmlParserCtxt, Deleter<xmlFreeParserCtxt>>;
using XPathContext = std::unique_ptr<xmlXPathContext, Deleter<xmlXPathFreeContext>>;
using XPathResult = std::unique_ptr<xmlXPathObject, Deleter<xmlXPathFreeObject>>;

}  // namespace

struct XmlTree {
    XmlTree(ParsedDocument parsed, bool keepsWhiteSpace)
        : document(std::move(parsed)), preserveWhiteSpace(keepsWhiteSpace) {}

    ParsedDocument document;
    bool preserveWhiteSpace;
};

namespace {

// Since the last use of the library on this thread began.
thread_local bool ranOutOfMemory = false;

extern "C" {
// What the library would print; the caller's own message tells the operator instead. Out of memory is kept, as the
// errors that follow from it hide it from who asks later.
static void noteError(void*, xmlErrorPtr error) {
    ranOutOfMemory = ranOutOfMemory || error->code == XML_ERR_NO_MEMORY;
}
static void ignoreText(void*, const char*, ...) {}

static void refuseDocument(void* context) {
    auto* const parser = static_cast<xmlParserCtxtPtr>(context);
    parser->wellFormed = 0;
    xmlStopParser(parser);
}

// A document type declaration ends the parse before the library reads any entity out of it.
static void refuseDocumentType(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
    refuseDocument(context);
}

// The library's own limits on a text's length and on the depth go together, so that the depth is watched here.
static void startElement(void* context, const xmlChar* name, const xmlChar* prefix, const xmlChar* uri,
                         int namespaceCount, const xmlChar** namespaces, int attributeCount, int defaultedCount,
                         const xmlChar** attributes) {
    if (static_cast<xmlParserCtxtPtr>(context)->nodeNr >= maxDepth) {
        refuseDocument(context);
        return;
    }
    xmlSAX2StartElementNs(context, name, prefix, uri, namespaceCount, namespaces, attributeCount, defaultedCount,
                          attributes);
}
}

// For one use of the library: what ran out of memory raises, as the library itself goes on with what it has got.
class MemoryWatch {
 public:
    MemoryWatch() { ranOutOfMemory = false; }
    void check() const {
        if (ranOutOfMemory) {
            throw std::bad_alloc();
        }
    }
};

// The library keeps its error functions by thread.
void prepareLibraryOnce() {
    thread_local const bool prepared = [] {
        xmlInitParser();
        xmlSetStructuredErrorFunc(nullptr, noteError);
        xmlSetGenericErrorFunc(nullptr, ignoreText);
        return true;
    }();
    static_cast<void>(prepared);
}

template <class Pointer>
Pointer required(Pointer pointer) {
    if (!pointer) {
        throw std::bad_alloc();
    }
    return pointer;
}

std::string_view viewOf(const xmlChar* text) {
    return text == nullptr ? std::string_view() : std::string_view(reinterpret_cast<const char*>(text));
}

bool isBlankText(const xmlNode* node) {
    return node->type == XML_TEXT_NODE && viewOf(node->content).find_first_not_of(whiteSpace) == std::string_view::npos;
}

// Depth is bounded by the limit on nesting.
void dropBlankTexts(xmlNodePtr parent) {
    for (xmlNodePtr node = parent->children; node != nullptr;) {
        const xmlNodePtr next = node->next;
        if (isBlankText(node)) {
            xmlUnlinkNode(node);
            xmlFreeNode(node);
        } else if (node->type == XML_ELEMENT_NODE) {
            dropBlankTexts(node);
        }
        node = next;
    }
}

std::string_view trimWhiteSpace(std::string_view text) {
    text = text.substr(0, text.find_last_not_of(whiteSpace) + 1);
    const std::size_t start = text.find_first_not_of(whiteSpace);
    return start == std::string_view::npos ? std::string_view() : text.substr(start);
}

void requireSetting(bool supported) {
    if (!supported) {
        throw RuntimeError(errors::invalidCall, "XML parser setting not supported");
    }
}

[[noreturn]] void raiseInvalidXPath(std::string_view xpath) {
    throw RuntimeError(errors::invalidCall, "Invalid XPath expression '" + std::string(xpath) + "'");
}

}  // namespace

std::string XmlNode::text() const {
    if (isNothing()) {
        throw RuntimeError(errors::objectNotSet);
    }
    const MemoryWatch memory;
    const std::unique_ptr<xmlChar, decltype(xmlFree)> content(xmlNodeGetContent(static_cast<xmlNodePtr>(node_)),
                                                              xmlFree);
    memory.check();
    const std::string_view all = viewOf(content.get());
    return std::string(tree_->preserveWhiteSpace ? all : trimWhiteSpace(all));
}

std::vector<void*> XmlNode::evaluate(std::string_view xpath) const {
    if (isNothing()) {
        throw RuntimeError(errors::objectNotSet);
    }
    const XPathContext context = required(XPathContext(xmlXPathNewContext(tree_->document.get())));
    context->error = noteError;
    context->node = static_cast<xmlNodePtr>(node_);
    const std::string expression(xpath);
    const MemoryWatch memory;
    const XPathResult result(xmlXPathEval(reinterpret_cast<const xmlChar*>(expression.c_str()), context.get()));
    memory.check();
    if (!result || result->type != XPATH_NODESET) {
        raiseInvalidXPath(xpath);
    }
    std::vector<void*> nodes;
    if (result->nodesetval != nullptr) {
        xmlXPathNodeSetSort(result->nodesetval);
        for (int i = 0; i < result->nodesetval->nodeNr; ++i) {
            // Name space nodes live only as long as the result itself, and nothing reads them.
            const xmlNodePtr node = result->nodesetval->nodeTab[i];
            if (node->type != XML_NAMESPACE_DECL) {
                nodes.push_back(node);
            }
        }
    }
    return nodes;
}

XmlNode XmlNode::selectSingleNode(std::string_view xpath) const {
    const std::vector<void*> nodes = evaluate(xpath);
    return nodes.empty() ? XmlNode() : XmlNode(tree_, nodes.front());
}

XmlNodeList XmlNode::selectNodes(std::string_view xpath) const {
    std::vector<XmlNode> nodes;
    for (void* const node : evaluate(xpath)) {
        nodes.push_back(XmlNode(tree_, node));
    }
    return XmlNodeList(std::move(nodes));
}

XmlDocument XmlDocument::create() {
    prepareLibraryOnce();
    XmlDocument document;
    document.state_ = std::make_shared<State>();
    return document;
}

XmlDocument::State& XmlDocument::state() const {
    if (isNothing()) {
        throw RuntimeError(errors::objectNotSet);
    }
    return *state_;
}

void XmlDocument::setAsync(bool on) {
    requireSetting(!on);
}

void XmlDocument::setValidateOnParse(bool on) {
    requireSetting(!on);
}

void XmlDocument::setResolveExternals(bool on) {
    requireSetting(!on);
}

void XmlDocument::setPreserveWhiteSpace(bool on) {
    state().preserveWhiteSpace = on;
}

void XmlDocument::setProperty(std::string_view name, bool on) {
    // There is one parser only, so both choices of "NewParser" mean the same one.
    requireSetting(name == "NewParser" || (name == "NormalizeAttributeValues" && on));
}

bool XmlDocument::loadXML(std::string_view text) {
    State& mine = state();
    mine.tree.reset();
    if (text.empty() || text.size() > maxDocumentBytes || text.find('\0') != std::string_view::npos) {
        return false;
    }
    const ParserContext parser = required(ParserContext(xmlNewParserCtxt()));
    parser->sax->internalSubset = refuseDocumentType;
    parser->sax->startElementNs = startElement;
    constexpr int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_IGNORE_ENC |
                            XML_PARSE_COMPACT | XML_PARSE_HUGE;
    const MemoryWatch memory;
    ParsedDocument parsed(
        xmlCtxtReadMemory(parser.get(), text.data(), static_cast<int>(text.size()), nullptr, "UTF-8", options));
    memory.check();
    if (!parsed) {
        return false;
    }
    if (!mine.preserveWhiteSpace) {
        dropBlankTexts(reinterpret_cast<xmlNodePtr>(parsed.get()));
    }
    mine.tree = std::make_shared<const XmlTree>(std::move(parsed), mine.preserveWhiteSpace);
    return true;
}

XmlNode XmlDocument::documentElement() const {
    const std::shared_ptr<const XmlTree>& tree = state().tree;
    xmlNodePtr root = tree ? xmlDocGetRootElement(tree->document.get()) : nullptr;
    return root == nullptr ? XmlNode() : XmlNode(tree, root);
}

}  // namespace quelm
