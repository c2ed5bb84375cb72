#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvoqc {

// The command lines of TarvoQC's programs, read by one table-driven parser that follows
// common habits: "--name value", "--name=value", "-n value", "-nvalue", short options
// clustered ("-qj2": flags one after another; the first that takes a value takes the rest of
// the cluster, or else the next argument); "--" ends the options; "-" and every argument that
// does not start with "-" is an operand; empty arguments are ignored.

// One option: its names and what it does with its value ("" for a flag). apply returns false
// with error set (one line, naming the option) for a value it refuses.
struct CommandLineOption
{
    std::string_view shortName; // one character, without "-"; empty when none
    std::string_view longName;  // without "--"
    bool takesValue = false;
    std::function<bool(std::string_view value, std::string& error)> apply;
};

// Reads args (without the program name) by the table: operands are appended to operands in
// order. False with a one-line error for an unknown option, a missing value, a value given
// to a flag, or a value an option refuses; the options applied before it stay applied.
bool parseCommandLine(const std::vector<std::string>& args,
                      const std::vector<CommandLineOption>& options,
                      std::vector<std::string>& operands, std::string& error);

// The apply functions of the common kinds of option; each refusal names the option, e.g.
// "--level needs a whole number from 1 to 4, not '9'".
using OptionApply = std::function<bool(std::string_view, std::string&)>;
OptionApply setFlag(bool& field);
OptionApply setWholeNumber(int& field, int low, int high, std::string_view name);
OptionApply setDecimal(double& field, double low, double high, std::string_view name);
// A text that must not be empty: "--output needs a file name".
OptionApply setText(std::string& field, std::string_view name, std::string_view what);
// The same, each use of the option adding one text.
OptionApply addText(std::vector<std::string>& field, std::string_view name, std::string_view what);

} // namespace tarvoqc
