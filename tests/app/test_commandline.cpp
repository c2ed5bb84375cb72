#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "app/common/commandline.h"

namespace tarvoqc {
namespace {

// What a table of a flag, a number, a decimal and texts made of one command line: the values
// in one text ("q=1 n=2 d=0.5 o=x b=y,z | operands"), or the error.
std::string parsed(const std::vector<std::string>& args)
{
    bool quiet = false;
    int number = 0;
    double decimal = 0.0;
    std::string output;
    std::vector<std::string> both;
    const std::vector<CommandLineOption> table = {
        {"q", "quiet", false, setFlag(quiet)},
        {"n", "number", true, setWholeNumber(number, 0, 5, "--number")},
        {"", "decimal", true, setDecimal(decimal, -1.0, 1.0, "--decimal")},
        {"o", "output", true, setText(output, "--output", "a file name")},
        {"b", "both", true, addText(both, "--both", "a file name")},
    };
    std::vector<std::string> operands;
    std::string error;
    if (!parseCommandLine(args, table, operands, error)) {
        return "error: " + error;
    }
    std::string text = "q=" + std::to_string(quiet) + " n=" + std::to_string(number) +
                       " d=" + std::to_string(decimal).substr(0, 4) + " o=" + output + " b=";
    for (const std::string& b : both) {
        text += b + ",";
    }
    text += " |";
    for (const std::string& operand : operands) {
        text += " " + operand;
    }
    return text;
}

// Both programs read their command lines here, so a cluster like "-qj2" works in each.
TEST(CommandLine, OptionsOperandsAndRefusals)
{
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, "q=0 n=0 d=0.00 o= b= |"},
        {{"-qn2", "a"}, "q=1 n=2 d=0.00 o= b= | a"},
        {{"-q", "-n", "3", "-ofile"}, "q=1 n=3 d=0.00 o=file b= |"},
        {{"--number=4", "--decimal", "-0.5", "--output=x=y"}, "q=0 n=4 d=-0.5 o=x=y b= |"},
        {{"-b", "y", "--both=z", "a", "-qby"}, "q=1 n=0 d=0.00 o= b=y,z,y, | a"},
        {{"a", "", "-", "--", "-q", "--number=1"}, "q=0 n=0 d=0.00 o= b= | a - -q --number=1"},
        {{"-n", "-1"}, "error: --number needs a whole number from 0 to 5, not '-1'"},
        {{"-n6"}, "error: --number needs a whole number from 0 to 5, not '6'"},
        {{"--number", "2x"}, "error: --number needs a whole number from 0 to 5, not '2x'"},
        {{"--decimal=nan"}, "error: --decimal needs a number from -1 to 1, not 'nan'"},
        {{"-o", ""}, "error: --output needs a file name"},
        {{"-qx"}, "error: unknown option '-x' (see --help)"},
        {{"--bogus"}, "error: unknown option '--bogus' (see --help)"},
        {{"--quiet=1"}, "error: option '--quiet' takes no value"},
        {{"-qn"}, "error: option '-n' needs a value"},
        {{"--output"}, "error: option '--output' needs a value"},
    };
    for (const auto& [args, expected] : cases) {
        SCOPED_TRACE(testing::PrintToString(args));
        EXPECT_EQ(parsed(args), expected);
    }
}

} // namespace
} // namespace tarvoqc
