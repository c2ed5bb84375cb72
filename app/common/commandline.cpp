#include "app/common/commandline.h"

#include <charconv>
#include <cstdio>
#include <optional>

namespace tarvoqc {

namespace {

const CommandLineOption* findOption(const std::vector<CommandLineOption>& options,
                                    std::string_view name, bool isLong)
{
    for (const CommandLineOption& option : options) {
        if (isLong ? option.longName == name
                   : (!option.shortName.empty() && option.shortName == name)) {
            return &option;
        }
    }
    return nullptr;
}

bool nonEmpty(std::string_view value, std::string_view name, std::string_view what,
              std::string& error)
{
    if (value.empty()) {
        error = std::string(name) + " needs " + std::string(what);
    }
    return !value.empty();
}

// The whole text as a number from low to high (NaN is none), stored in field; false (field
// untouched) otherwise.
template <typename Number>
bool numberIn(std::string_view value, Number low, Number high, Number& field)
{
    Number number{};
    const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (ec != std::errc{} || end != value.data() + value.size() || !(number >= low) ||
        !(number <= high)) {
        return false;
    }
    field = number;
    return true;
}

} // namespace

bool parseCommandLine(const std::vector<std::string>& args,
                      const std::vector<CommandLineOption>& options,
                      std::vector<std::string>& operands, std::string& error)
{
    bool onlyOperands = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        if (arg.empty()) {
            continue;
        }
        if (onlyOperands || arg == "-" || arg[0] != '-') {
            operands.emplace_back(arg);
            continue;
        }
        if (arg == "--") {
            onlyOperands = true;
            continue;
        }
        if (!arg.starts_with("--")) {
            for (std::size_t k = 1; k < arg.size(); ++k) {
                const CommandLineOption* option = findOption(options, arg.substr(k, 1), false);
                if (option == nullptr) {
                    error = "unknown option '-" + std::string(arg.substr(k, 1)) + "' (see --help)";
                    return false;
                }
                std::string_view value;
                if (option->takesValue) {
                    if (k + 1 < arg.size()) {
                        value = arg.substr(k + 1);
                    } else if (i + 1 < args.size()) {
                        value = args[++i];
                    } else {
                        error = "option '-" + std::string(option->shortName) + "' needs a value";
                        return false;
                    }
                    k = arg.size();
                }
                if (!option->apply(value, error)) {
                    return false;
                }
            }
            continue;
        }
        std::string_view name = arg.substr(2);
        std::optional<std::string_view> inlineValue;
        if (const auto eq = name.find('='); eq != std::string_view::npos) {
            inlineValue = name.substr(eq + 1);
            name = name.substr(0, eq);
        }
        const CommandLineOption* option = findOption(options, name, true);
        if (option == nullptr) {
            error = "unknown option '" + std::string(arg) + "' (see --help)";
            return false;
        }
        std::string_view value;
        if (option->takesValue) {
            if (inlineValue) {
                value = *inlineValue;
            } else if (i + 1 < args.size()) {
                value = args[++i];
            } else {
                error = "option '" + std::string(arg) + "' needs a value";
                return false;
            }
        } else if (inlineValue) {
            error = "option '--" + std::string(name) + "' takes no value";
            return false;
        }
        if (!option->apply(value, error)) {
            return false;
        }
    }
    return true;
}

OptionApply setFlag(bool& field)
{
    return [&field](std::string_view, std::string&) {
        field = true;
        return true;
    };
}

OptionApply setWholeNumber(int& field, int low, int high, std::string_view name)
{
    return [&field, low, high, name](std::string_view value, std::string& error) {
        if (!numberIn(value, low, high, field)) {
            error = std::string(name) + " needs a whole number from " + std::to_string(low) +
                    " to " + std::to_string(high) + ", not '" + std::string(value) + "'";
            return false;
        }
        return true;
    };
}

OptionApply setDecimal(double& field, double low, double high, std::string_view name)
{
    return [&field, low, high, name](std::string_view value, std::string& error) {
        if (!numberIn(value, low, high, field)) {
            char text[160];
            std::snprintf(text, sizeof text, "%s needs a number from %g to %g, not '",
                          std::string(name).c_str(), low, high);
            error = text + std::string(value) + "'";
            return false;
        }
        return true;
    };
}

OptionApply setText(std::string& field, std::string_view name, std::string_view what)
{
    return [&field, name, what](std::string_view value, std::string& error) {
        return nonEmpty(value, name, what, error) && (field = value, true);
    };
}

OptionApply addText(std::vector<std::string>& field, std::string_view name, std::string_view what)
{
    return [&field, name, what](std::string_view value, std::string& error) {
        return nonEmpty(value, name, what, error) && (field.emplace_back(value), true);
    };
}

} // namespace tarvoqc
