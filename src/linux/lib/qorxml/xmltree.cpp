#include "xmltree.h"

#include <algorithm>
#include <exception>
#include <memory>

#include <libxml/parser.h>

#include "qorxml.h"

namespace
{
// Children looked at one by one before the rest of a search goes through the sorted list: below this,
// sorting costs more than the thirty searches of a run.
constexpr int linear_children = 64;

constexpr std::string_view white_space = " \t\r\n";

// An element whose end was not seen yet.
struct open_element {
    std::uint32_t element;
    std::uint32_t last_child;
    std::string text;
};

struct tree_builder {
    xml_tree *tree;
    xmlParserCtxtPtr parser;
    std::vector<open_element> open; // open[0] is the document; records stay for reuse when an element ends
    std::size_t depth;              // of the innermost open element
    int result;
};

void refuse(tree_builder *builder, int result)
{
    builder->result = result;
    xmlStopParser(builder->parser);
}

// Runs one step of the building. An exception must not cross the parser, which is C.
template <typename Step>
void build(void *context, Step step)
{
    auto *builder = static_cast<tree_builder *>(context);
    if (builder->result != QOR_XMLERR_SUCCESS) {
        return;
    }
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

// Never cuts: see xmltree_max_bytes.
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

// Every callback that is not set here does nothing; so nothing is loaded, looked up or printed.
void set_callbacks(xmlSAXHandler *sax)
{
    *sax = {};
    sax->initialized = XML_SAX2_MAGIC;
    sax->startElementNs = start_element;
    sax->endElementNs = end_element;
    sax->characters = characters;
    sax->ignorableWhitespace = characters; // the same as `characters`: the parser then decides nothing itself
    sax->cdataBlock = characters;
    sax->entityDecl = entity_declared;
    sax->unparsedEntityDecl = unparsed_entity_declared;
    sax->attributeDecl = attribute_declared;
    sax->reference = unknown_entity;
}

struct parser_deleter {
    void operator()(xmlParserCtxtPtr parser) const { xmlFreeParserCtxt(parser); }
};

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
    tree_builder builder = {tree, parser.get(), std::vector<open_element>(1), 0, QOR_XMLERR_SUCCESS};
    tree->elements.assign(1, {});
    set_callbacks(parser->sax);
    parser->userData = &builder;
    // NOENT: without it "&amp;" in an attribute value arrives as "&#38;". It opens no door, because a
    // document that declares an entity is refused at the declaration. No HUGE: the parser's limits on depth
    // and on the length of a name or a text stand. A document is made only for declarations, and of no use
    // here.
    xmlFreeDoc(
        xmlCtxtReadMemory(parser.get(), bytes.data(), static_cast<int>(bytes.size()), nullptr, nullptr,
                          XML_PARSE_NONET | XML_PARSE_NOENT | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));

    if (builder.result != QOR_XMLERR_SUCCESS) {
        return builder.result;
    }
    if (parser->errNo == XML_ERR_NO_MEMORY) {
        return QOR_XMLERR_OTHER;
    }
    return parser->wellFormed != 0 ? QOR_XMLERR_SUCCESS : QOR_XMLERR_INVALID_XML;
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
