// How the help texts look: an option as "-c, --count N", its default behind its description.
#pragma once

#include <CLI/App.hpp>
#include <CLI/Formatter.hpp>

namespace tavctl {

class HelpFormat : public CLI::Formatter {
  public:
    HelpFormat() { column_width(28); }

    std::string make_option_name(const CLI::Option *option, bool positional) const override {
        if (positional) return option->get_name(true);
        std::string names;
        for (const std::string &name : option->get_snames()) names += "-" + name + ", ";
        for (const std::string &name : option->get_lnames()) names += "--" + name + ", ";
        return names.substr(0, names.size() - 2);
    }
    std::string make_option_opts(const CLI::Option *option) const override {
        if (option->get_positional() || option->get_expected_max() == 0) return {};
        const std::string type = option->get_type_name();
        return " " + type.substr(0, type.find(':')); // without the check's description
    }
    std::string make_option_desc(const CLI::Option *option) const override {
        const std::string value = option->get_default_str();
        return option->get_description() + (value.empty() ? "" : " (default " + value + ")");
    }
};

} // namespace tavctl
