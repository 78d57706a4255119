#include "xmltree.h"

#include <algorithm>
#include <exception>
#include <memory>

#include <libxml/parser.h>

#include "qorxml.h"

namespace
{
/// Children looked at one by one before the rest of a search goes through the sorted list: below this,
/// sorting costs more than the thirty searches of a run.
constexpr int linear_children = 64;

constexpr std::string_view white_space = " \t\r\n";

/// What the parser takes quadratic time for: the different names of a document, the namespaces in scope, and
/// the attributes of an element, which it hands over together; so a start tag is cut off where it has no end.
/// Each is far beyond what a configuration needs, and what it allows costs milliseconds.
constexpr int max_names = 10000;
constexpr int max_namespaces = 64;
constexpr int max_attributes = 64;
constexpr std::size_t max_silence = 64UL * 1024; // bytes of markup before the parser reports something

/// An element whose end was not seen yet.
struct open_element {
    std::uint32_t element;
    std::uint32_t last_child;
    std::string text;
};

struct tree_builder {
    xml_tree *tree;
    xmlParserCtxtPtr parser;
    std::string_view unread;        // what the parser has not asked for yet
    std::vector<open_element> open; // open[0] is the document; records stay for reuse when an element ends
    std::size_t depth = 0;          // of the innermost open element
    std::size_t silence = 0;        // bytes read since the parser's last report
    int result = QOR_XMLERR_SUCCESS;
};

void refuse(tree_builder *builder, int result)
{
    builder->result = result;
    xmlStopParser(builder->parser);
}

/// Runs one step of the building. An exception must not cross the parser, which is C.
template <typename Step>
void build(void *context, Step step)
{
    auto *builder = static_cast<tree_builder *>(context);
    if (builder->result != QOR_XMLERR_SUCCESS) {
        return;
    }
    builder->silence = 0;
    try {
        step(builder);
    } catch (const std::exception &) {
        refuse(builder, QOR_XMLERR_OTHER);
    }
}

const char *chars_of(const xmlChar *text)
{
    return reinterpret_cast<const char *>(text);
}

/// Never cuts: see xmltree_max_bytes.
std::uint32_t offset_of(std::size_t value)
{
    return static_cast<std::uint32_t>(value);
}

void append_key(std::string *chars, const xmlChar *tag, const xmlChar *prefix, const xmlChar **attributes,
                int count)
{
    if (prefix != nullptr) {
        chars->append(chars_of(prefix)).append(1, ':');
    }
    chars->append(chars_of(tag));
    for (int i = 0; i < count; ++i, attributes += 5) { // local name, prefix, namespace, value, value's end
        if (attributes[1] == nullptr && std::string_view(chars_of(attributes[0])) == "name") {
            chars->append(1, '@').append(chars_of(attributes[3]), chars_of(attributes[4]));
        }
    }
}

void start_element(void *context, const xmlChar *tag, const xmlChar *prefix, const xmlChar * /*uri*/,
                   int /*nb_namespaces*/, const xmlChar ** /*namespaces*/, int nb_attributes,
                   int /*nb_defaulted*/, const xmlChar **attributes)
{
    build(context, [=](tree_builder *builder) {
        // The parser's stack of namespaces holds two texts for each.
        if (nb_attributes > max_attributes || builder->parser->nsNr > 2 * max_namespaces) {
            refuse(builder, QOR_XMLERR_INVALID_XML);
            return;
        }
        xml_tree *tree = builder->tree;
        const std::uint32_t element = offset_of(tree->elements.size());
        const std::size_t key = tree->chars.size();
        append_key(&tree->chars, tag, prefix, attributes, nb_attributes);
        tree->elements.push_back({offset_of(key), offset_of(tree->chars.size() - key), 0, 0, 0, 0});

        open_element &parent = builder->open[builder->depth];
        if (parent.last_child == 0) {
            tree->elements[parent.element].child = element;
        } else {
            tree->elements[parent.last_child].next = element;
        }
        parent.last_child = element;

        if (++builder->depth == builder->open.size()) {
            builder->open.emplace_back();
        }
        open_element &own = builder->open[builder->depth];
        own.element = element;
        own.last_child = 0;
        own.text.clear();
    });
}

void end_element(void *context, const xmlChar * /*tag*/, const xmlChar * /*prefix*/, const xmlChar * /*uri*/)
{
    build(context, [](tree_builder *builder) {
        const open_element &own = builder->open[builder->depth--];
        const std::size_t len = own.text.find_last_not_of(white_space) + 1;
        if (len > 0) {
            std::string &chars = builder->tree->chars;
            xml_element &element = builder->tree->elements[own.element];
            element.text = offset_of(chars.size());
            element.text_len = offset_of(len);
            chars.append(own.text, 0, len);
        }
    });
}

void characters(void *context, const xmlChar *data, int len)
{
    build(context, [=](tree_builder *builder) {
        std::string_view piece(chars_of(data), static_cast<std::size_t>(len));
        std::string &text = builder->open[builder->depth].text;
        if (text.empty()) { // most pieces are the white space between two elements
            piece.remove_prefix(std::min(piece.find_first_not_of(white_space), piece.size()));
        }
        text.append(piece);
    });
}

void comment(void *context, const xmlChar * /*value*/)
{
    auto *builder = static_cast<tree_builder *>(context);
    if (builder->parser->inSubset == 0) { // one in a document type declaration does not make that shorter
        builder->silence = 0;
    }
}

void refuse_document(void *context)
{
    refuse(static_cast<tree_builder *>(context), QOR_XMLERR_INVALID_XML);
}

void entity_declared(void *context, const xmlChar * /*name*/, int /*type*/, const xmlChar * /*public_id*/,
                     const xmlChar * /*system_id*/, xmlChar * /*content*/)
{
    refuse_document(context);
}

void unparsed_entity_declared(void *context, const xmlChar * /*name*/, const xmlChar * /*public_id*/,
                              const xmlChar * /*system_id*/, const xmlChar * /*notation*/)
{
    refuse_document(context);
}

void attribute_declared(void *context, const xmlChar * /*element*/, const xmlChar * /*name*/, int /*type*/,
                        int /*def*/, const xmlChar * /*default_value*/, xmlEnumerationPtr values)
{
    xmlFreeEnumeration(values); // the callback owns it
    refuse_document(context);
}

void unknown_entity(void *context, const xmlChar * /*name*/)
{
    refuse_document(context);
}

/// Every callback that is not set here does nothing; so nothing is loaded, looked up or printed.
void set_callbacks(xmlSAXHandler *sax)
{
    *sax = {};
    sax->initialized = XML_SAX2_MAGIC;
    sax->startElementNs = start_element;
    sax->endElementNs = end_element;
    sax->characters = characters;
    sax->ignorableWhitespace = characters; // the same as `characters`: the parser then decides nothing itself
    sax->cdataBlock = characters;
    sax->comment = comment;
    sax->entityDecl = entity_declared;
    sax->unparsedEntityDecl = unparsed_entity_declared;
    sax->attributeDecl = attribute_declared;
    sax->reference = unknown_entity;
}

struct parser_deleter {
    void operator()(xmlParserCtxtPtr parser) const { xmlFreeParserCtxt(parser); }
};

/// Gives the parser its next bytes, or none once the document has become too costly. Given everything at
/// once, it would report nothing before the end of what it takes its time for.
int feed(void *context, char *buffer, int size)
{
    auto *builder = static_cast<tree_builder *>(context);
    const std::size_t len = builder->unread.copy(buffer, static_cast<std::size_t>(size));
    builder->unread.remove_prefix(len);
    // Comments cost nothing, and may be long: a block of the configuration that is switched off, say.
    if (builder->parser->instate != XML_PARSER_COMMENT) {
        builder->silence += len;
    }
    if (builder->silence > max_silence || xmlDictSize(builder->parser->dict) > max_names) {
        builder->result = QOR_XMLERR_INVALID_XML;
        return -1;
    }
    return static_cast<int>(len);
}

/// Judges a document that the parser is done with. The parser's own verdict would be "well-formed" for one
/// that it had no memory to begin with, and for one with bytes behind a NUL, which it takes for the end.
int judge(const tree_builder &builder)
{
    const xmlParserCtxt &parser = *builder.parser;
    const bool root_seen = builder.tree->elements.size() > 1;
    if (builder.result != QOR_XMLERR_SUCCESS) {
        return builder.result;
    }
    if (parser.errNo == XML_ERR_NO_MEMORY) {
        return QOR_XMLERR_OTHER;
    }
    return parser.errNo == XML_ERR_OK && root_seen && parser.input->cur == parser.input->end
               ? QOR_XMLERR_SUCCESS
               : QOR_XMLERR_INVALID_XML;
}

} // namespace

int xmltree_parse(std::string_view bytes, xml_tree *tree)
{
    if (bytes.empty() || bytes.size() > xmltree_max_bytes) {
        return QOR_XMLERR_INVALID_XML;
    }
    const std::unique_ptr<xmlParserCtxt, parser_deleter> parser(xmlNewParserCtxt());
    if (parser == nullptr) {
        return QOR_XMLERR_OTHER;
    }
    tree_builder builder = {tree, parser.get(), bytes, std::vector<open_element>(1)};
    tree->elements.assign(1, {});
    set_callbacks(parser->sax);
    parser->userData = &builder;
    // NOENT: without it "&amp;" in an attribute value arrives as "&#38;". It opens no door, because a
    // document that declares an entity is refused at the declaration. No HUGE: the parser's limits on
    // depth and on the length of a name or a text stand. A document is made only for declarations, and of
    // no use here.
    xmlFreeDoc(xmlCtxtReadIO(parser.get(), feed, nullptr, &builder, nullptr, nullptr,
                             XML_PARSE_NONET | XML_PARSE_NOENT | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
    return judge(builder);
}

std::string_view xmltree_key(const xml_tree &tree, std::uint32_t element)
{
    const xml_element &e = tree.elements[element];
    return {tree.chars.data() + e.key, e.key_len};
}

std::string_view xmltree_text(const xml_tree &tree, std::uint32_t element)
{
    const xml_element &e = tree.elements[element];
    return {tree.chars.data() + e.text, e.text_len};
}

namespace
{
const std::vector<std::uint32_t> &sorted_children(xml_tree *tree, std::uint32_t parent)
{
    std::vector<std::uint32_t> &children = tree->sorted[parent];
    if (children.empty()) {
        for (std::uint32_t c = tree->elements[parent].child; c != 0; c = tree->elements[c].next) {
            children.push_back(c);
        }
        std::stable_sort(children.begin(), children.end(), [tree](std::uint32_t a, std::uint32_t b) {
            return xmltree_key(*tree, a) < xmltree_key(*tree, b);
        });
    }
    return children;
}
} // namespace

std::uint32_t xmltree_child(xml_tree *tree, std::uint32_t parent, std::string_view key)
{
    int seen = 0;
    for (std::uint32_t c = tree->elements[parent].child; c != 0; c = tree->elements[c].next) {
        if (xmltree_key(*tree, c) == key) {
            return c;
        }
        if (++seen == linear_children) {
            const std::vector<std::uint32_t> &children = sorted_children(tree, parent);
            const auto found = std::lower_bound(
                children.begin(), children.end(), key,
                [tree](std::uint32_t a, std::string_view k) { return xmltree_key(*tree, a) < k; });
            return found != children.end() && xmltree_key(*tree, *found) == key ? *found : 0;
        }
    }
    return 0;
}
