// The picture that a terminal shows: the few codes that the launcher uses, and what a narrowed
// terminal does to lines that no longer fit: it breaks them anew over several rows.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

class Picture {
  public:
    void Resize(size_t width) { width_ = width; }

    void Show(const std::string& bytes) {
        for (const char c : bytes) {
            if (!code_.empty() || c == '\033') {
                code_ += c;
                EndCode();
            } else if (c == '\r') {
                at_ -= at_ % width_;
            } else if (c == '\n') {
                NextRow();
            } else {
                Put(c);
            }
        }
    }

    // Whole lines, however many rows each takes.
    const std::vector<std::string>& Lines() const { return lines_; }

  private:
    void Put(char c) {
        if (!wraps_ && at_ % width_ == width_ - 1) {
            lines_[line_].resize(std::max(lines_[line_].size(), at_ + 1), ' ');
            lines_[line_][at_] = c;
            return;
        }
        lines_[line_].resize(std::max(lines_[line_].size(), at_ + 1), ' ');
        lines_[line_][at_++] = c;
    }
    void NextRow() {
        if (at_ + width_ < lines_[line_].size()) {
            at_ += width_;
            return;
        }
        at_ %= width_;
        if (++line_ == lines_.size()) {
            lines_.emplace_back();
        }
    }
    void EndCode() {
        if (code_.size() < 3 || !isalpha(static_cast<unsigned char>(code_.back()))) {
            return;
        }
        if (code_ == "\033[J") {
            lines_.resize(line_ + 1);
            lines_[line_].resize(std::min(lines_[line_].size(), at_));
        } else if (code_ == "\033[?7l" || code_ == "\033[?7h") {
            wraps_ = code_.back() == 'h';
        }
        code_.clear();
    }

    std::vector<std::string> lines_ = {""};
    size_t line_ = 0;
    size_t at_ = 0;  // in the line, over all of its rows
    size_t width_ = 80;
    bool wraps_ = true;
    std::string code_;
};
