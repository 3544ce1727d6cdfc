// `kelrt ops`: the catalogue as text.
#include <cstdio>
#include <string>

#include "operators.h"

namespace tool {
namespace {

const char* name_of(Use use) {
    switch (use) {
        case Use::Input:
            return "input";
        case Use::Output:
            return "output";
        case Use::InOut:
            return "in/out";
        default:
            return "";
    }
}

const char* name_of(Element element) {
    switch (element) {
        case Element::Float:
            return "f4";
        case Element::Byte:
            return "i1, u1";
        case Element::Any:
            return "any";
        default:
            return "";
    }
}

}  // namespace

void print_operators() {
    std::printf("%2s  %-36s %s\n", "id", "operator", "arguments");
    for (const Operator& op : kOperators) {
        std::string arguments;
        for (const Argument& argument : op.arguments)
            arguments += std::string(arguments.empty() ? "" : " ") + argument.name;
        std::printf("%2u  %-36s %s\n", id_of(op), op.name, arguments.c_str());
    }
    std::printf("`kelrt ops NAME` shows what the arguments of one operator mean.\n");
}

void print_operator(const Operator& op) {
    std::printf("%s (operator %u): %s\n\n", op.name, id_of(op), op.summary);
    std::printf("%3s  %-16s %-8s %-7s %-7s %s\n", "arg", "name", "type", "use", "dtype", "meaning");
    for (size_t i = 0; i < op.arguments.size(); ++i) {
        const Argument& argument = op.arguments[i];
        std::printf("%3zu  %-16s %-8s %-7s %-7s %s\n", i + 2, argument.name, name_of(argument.type),
                    name_of(argument.use), name_of(argument.element), argument.meaning);
    }
}

}  // namespace tool
