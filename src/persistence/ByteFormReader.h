#pragma once

// Reads a parsed byte form in one walk over libxml2's tree, with the results of
// the reference reader (ByteFormReference.h), which writes every child of a
// container back to bytes and parses it again.
//
// Why one walk gives the same results: rewriting a scalar child keeps its name,
// its first attribute and its text, so reading the rewrite is reading the
// child. Rewriting a container child writes the values read from it, so its
// values come back as if written and read once more ("normalised": a double
// keeps six decimals, a date before 1970 fails). Values inside it were
// normalised when their own container was read, and normalising is idempotent,
// so only a container's direct scalar children need it, in the order the
// writer would visit them, after the container has been read.
//
// What the walk cannot take on trust is libxml2 accepting those rewrites:
// a document of 10 MB or more can meet its size limits (and then it matters
// where in the document a long text lies). The walk therefore adds up the size
// of every rewrite the reference reader would parse, and really writes and
// parses the few that come near that size, once each; the reference reader
// parses them once per enclosing container, which doubles its work at every
// level of nesting.
//
// Whether libxml2 takes such a rewrite turns on where in it the parser's
// buffer management meets the end of the document ("Huge input lookup" when
// the parser asks for more input over 10,000,000 bytes past the start of its
// buffer), on how a long text ends and on what follows it, so it is learnt by
// parsing, not worked out from sizes. A rewrite holds its whole subtree, so a
// chain of nested containers around large content has the walk parse nearly
// all of it once per level; the rewrite of a nested container is kept and
// copied into its parent's, so at least nothing is written twice. The reference
// reader's own work doubles with every such level, and the walk stops with
// kSerializationError where that work would pass kReferenceWorkLimit: where
// the reference reader would take weeks, and the only place where the
// walk does not give what it gives.

#include "platform/xml/Xml.h"

#include <memory>
#include <system_error>

#include "qelss/values/IValue.h"

namespace QelSS::byteform {

// Reads the tree whose root element is `root`; results as ReadValueReference
// gives for the document. Elements below the root are freed as they are read:
// the document is of no use afterwards, whatever the result.
// Exceptions are reported ("QSSH") and give kFailure.
[[nodiscard]] std::error_code ReadRootElement(xmlNode* root, std::shared_ptr<IValue>& out) noexcept;

}  // namespace QelSS::byteform
