// What was done to a machine, one line each, in order.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace simulator {

// Used under the machine's lock.
class Journal {
public:
    virtual ~Journal() = default;

    // line: without its line feed. False when it could not be kept (a full disk); nothing of it is
    // left then.
    virtual bool append(std::string_view line) = 0;
    virtual std::vector<std::string> lines() = 0;
    virtual std::string lastLine() = 0;  // "" when there is none
    // Takes away the line that a process which died while appending may have left unfinished.
    virtual void dropHalfLine() = 0;
    virtual void clear() = 0;
};

class MemoryJournal : public Journal {
public:
    bool append(std::string_view line) override;
    std::vector<std::string> lines() override { return lines_; }
    std::string lastLine() override { return lines_.empty() ? "" : lines_.back(); }
    void dropHalfLine() override {}
    void clear() override { lines_.clear(); }

private:
    std::vector<std::string> lines_;
};

// Appends whole lines to a file that any number of processes append to. A line is one write; only
// across a page's end can a killed process leave a part of one.
class FileJournal : public Journal {
public:
    // The file must exist. Throws std::runtime_error.
    explicit FileJournal(std::string path);
    ~FileJournal() override;
    FileJournal(const FileJournal&) = delete;
    FileJournal& operator=(const FileJournal&) = delete;

    bool append(std::string_view line) override;
    std::vector<std::string> lines() override;
    std::string lastLine() override;
    void dropHalfLine() override;
    void clear() override;

private:
    std::string tail();

    std::string path_;
    int descriptor_ = -1;
};

}  // namespace simulator
