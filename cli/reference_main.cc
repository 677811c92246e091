// Writes the dedup man page and its bash, zsh and fish completions from the command line itself.
//   dedup-reference MAN_PAGE_TEMPLATE OUTPUT_FOLDER DATE
#include <fstream>
#include <iostream>
#include <sstream>

#include "command_line.h"
#include "dedup_version.h"
#include "reference.h"

namespace {

bool write(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) std::cerr << "dedup-reference: cannot write " << path << "\n";
    return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: dedup-reference MAN_PAGE_TEMPLATE OUTPUT_FOLDER DATE\n";
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary);
    std::stringstream page;
    page << in.rdbuf();
    if (!in) {
        std::cerr << "dedup-reference: cannot read " << argv[1] << "\n";
        return 1;
    }

    CLI::App app;
    dedup::cli::Commands commands;
    dedup::cli::declareCommandLine(app, commands);
    const auto root = dedup::cli::describeCommandLine(app);

    const std::string folder = argv[2];
    try {
        std::string text = page.str();
        dedup::cli::fillIn(text, "@VERSION@", dedup::kVersion);
        dedup::cli::fillIn(text, "@DATE@", argv[3]);
        const bool written = write(folder + "/dedup.1", dedup::cli::manPage(root, text)) &&
                             write(folder + "/dedup.bash", dedup::cli::bashCompletion(root)) &&
                             write(folder + "/_dedup", dedup::cli::zshCompletion(root)) &&
                             write(folder + "/dedup.fish", dedup::cli::fishCompletion(root));
        return written ? 0 : 1;
    } catch (const std::exception& error) {
        std::cerr << "dedup-reference: " << error.what() << "\n";
        return 1;
    }
}
