/// A configuration file in memory: its elements, with what a path can ask of them and nothing more.
///
/// The parser's own document tree is not used: a run reads about thirty values of a few kilobytes, and the
/// record below costs a fraction of the time and memory, for small files and for huge ones.
#ifndef QORXML_XMLTREE_H
#define QORXML_XMLTREE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/// Forty thousand resources; what the smallest elements make of it takes 80 MB. Keeps the offsets below
/// within 32 bits, for text can grow threefold when its encoding is converted.
constexpr std::size_t xmltree_max_bytes = 8UL * 1024 * 1024;

/// One element; 24 bytes, because a large file has a million of them. Offsets point into xml_tree::chars,
/// `child` and `next` are places in xml_tree::elements, 0 for none.
struct xml_element {
    std::uint32_t key; ///< "tag", or "tag@name" for an element with the attribute `name`
    std::uint32_t key_len;
    std::uint32_t text; ///< the element's own text, trimmed; that of its child elements is not part of it
    std::uint32_t text_len;
    std::uint32_t child; ///< first child element
    std::uint32_t next;  ///< next sibling element
};

struct xml_tree {
    std::vector<xml_element> elements; ///< in document order; the first stands for the document itself
    std::string chars;
    /// Children in order of their keys, equal keys in document order, of the elements with many children that
    /// were searched already.
    std::map<std::uint32_t, std::vector<std::uint32_t>> sorted;
};

/// Parses a whole file. Nothing but `bytes` is read and nothing is printed, whatever they hold. A document
/// that declares anything (entities, attribute defaults) or refers to an entity that is not predefined is
/// refused, so no text grows beyond what stands in the file.
///
/// Refused, too, before it costs a second: more than 10,000 different names of elements and attributes, 64
/// attributes of an element, 64 namespaces in scope, 256 levels, 64 KiB in one tag, CDATA section, processing
/// instruction or document type declaration; and what stands behind a NUL, which the parser would not see.
/// @param tree  an empty tree; to be thrown away unless the result is SUCCESS
/// @return SUCCESS; INVALID_XML when the bytes are not such a document or too many; OTHER when memory ran out
///         (INVALID_XML where the parser does not tell)
[[nodiscard]] int xmltree_parse(std::string_view bytes, xml_tree *tree);

[[nodiscard]] std::string_view xmltree_key(const xml_tree &tree, std::uint32_t element);
[[nodiscard]] std::string_view xmltree_text(const xml_tree &tree, std::uint32_t element);

/// @return the first child of `parent` with that key, 0 when there is none
[[nodiscard]] std::uint32_t xmltree_child(xml_tree *tree, std::uint32_t parent, std::string_view key);

#endif
