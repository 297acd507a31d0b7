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
    virtual void clear() = 0;
};

class MemoryJournal : public Journal {
public:
    bool append(std::string_view line) override;
    std::vector<std::string> lines() override { return lines_; }
    std::string lastLine() override { return lines_.empty() ? "" : lines_.back(); }
    void clear() override { lines_.clear(); }

private:
    std::vector<std::string> lines_;
};

// Appends whole lines to a file that any number of processes append to; a killed process leaves no
// half line behind, because a line is one write.
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
    void clear() override;

private:
    std::string path_;
    int descriptor_ = -1;
};

}  // namespace simulator
