// Writing files so that nobody ever sees half of one, or some of a set.
#pragma once

#include <initializer_list>
#include <list>
#include <string>
#include <string_view>

#include "npy.h"

namespace npy {

// A set of files in one folder, .npy or not, that appears as a whole or not at all. Each is written beside
// its place, under a temporary name, and is on disk before the first one gets its own. Of two sets for one
// folder the later waits while the earlier is put in place. One set a process at a time. Complaints are
// npy::Error and begin with the path.
class OutputFiles {
  public:
    // Makes the folder, and those above it, if need be.
    explicit OutputFiles(const std::string& folder);
    // Without commit nothing that was made remains.
    ~OutputFiles();
    OutputFiles(const OutputFiles&) = delete;
    OutputFiles& operator=(const OutputFiles&) = delete;

    // Writes NAME.npy.
    void add(const std::string& name, const Array& array);
    // Writes a file of these pieces.
    void add_file(const std::string& name, std::initializer_list<std::string_view> pieces);
    // Puts every file in its place; if one cannot be, all places are as they were.
    void commit();

  private:
    struct File {
        std::string path;
        std::string temporary;
        std::string old;  // the temporary name of the file that it replaces
        bool replaces = false;
        bool placed = false;
    };

    OutputFiles() = default;
    static bool put_in_place(File& file);
    static void put_back(const File& file);

    std::string folder_;
    std::list<File> files_;
};

// Removes what an uncommitted set has made so far: for signal handlers, and for whoever ends the program at
// once.
void remove_unfinished_files();

}  // namespace npy
