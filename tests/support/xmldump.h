#pragma once

#include <string>

#include "results/xmlnode.h"

namespace tarvoqc::test {

// A tree as name[attr=value,...]{text}(children), for comparing a whole tree at once.
inline std::string xmlDump(const XmlNode& n)
{
    std::string text = n.name();
    for (std::size_t i = 0; i < n.attributeCount(); ++i) {
        text.append(i ? "," : "[").append(n.attributeName(i)).append("=");
        text.append(n.attributeValue(i));
    }
    text += n.attributeCount() > 0 ? "]" : "";
    text += n.text().empty() ? "" : "{" + n.text() + "}";
    for (std::size_t i = 0; i < n.childCount(); ++i) {
        text.append(i ? "," : "(").append(xmlDump(*n.child(i)));
    }
    return text + (n.childCount() > 0 ? ")" : "");
}

} // namespace tarvoqc::test
