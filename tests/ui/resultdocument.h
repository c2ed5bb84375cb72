#pragma once

#include <filesystem>
#include <string>

#include "tests/support/testsupport.h"

namespace tarvoqc::test {

// A result document read by Python's own XML parser: one line per element of the root,
// "Clip <path> <Hash256>" or "QCheck <Result>"; "unreadable" when it does not parse.
inline std::string documentSummary(const std::filesystem::path& document)
{
    const char* script =
        "import sys, xml.etree.ElementTree as ET\n"
        "text = open(sys.argv[1], "
        "'rb').read().decode('utf-16-le').lstrip('\\ufeff').rstrip('\\x00')\n"
        "for e in ET.fromstring(text):\n"
        "    if e.tag == 'Clip':\n"
        "        f = e.find('File')\n"
        "        print('Clip', e.get('File'), f.get('Hash256', '-') if f is not None else '-')\n"
        "    else:\n"
        "        print(e.tag, e.get('Result'))\n";
    const CommandResult r = runCommand({"python3", "-c", script, document.string()});
    return r.status == 0 ? r.out : "unreadable";
}

} // namespace tarvoqc::test
