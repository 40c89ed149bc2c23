// One image on its way into a unit: numbered blocks in order, each taken or held back until it is
// acknowledged. A block that was answered NACK is kept, since a retry carries no data: it asks the
// unit to try again with what it has.
#pragma once

#include <string>

#include "tools/kestrelsim/unit.h"

namespace kestrelsim {

class Transfer {
  public:
    explicit Transfer(Image image) : image_(image) {}

    // Expects `blocks` blocks from number 0 on.
    void Begin(int blocks);

    // Takes a block frame's payload. Empty text when it fits, otherwise what is wrong with it.
    std::string Offer(const Bytes& payload);

    // Takes the answer to the block offered last: on true it becomes part of the image.
    void Settle(bool acknowledged);

    AnswerId Id(UnitName unit) const { return {unit, AnswerKind::kBlock, image_, next_, attempt_}; }
    int next() const { return next_; }
    int blocks() const { return blocks_; }
    size_t offered() const { return held_.size(); }
    bool Running() const { return next_ < blocks_; }
    bool Untouched() const { return next_ == 0 && attempt_ == 0; }
    const Bytes& data() const { return data_; }

    // "camera image: 3 of 12 blocks", for a transfer that is given up.
    std::string Progress() const;

  private:
    const Image image_;
    int blocks_ = 0;
    int next_ = 0;
    int attempt_ = 0;  // of block next_; 0 before it came
    Bytes held_;       // its data
    Bytes data_;
};

}  // namespace kestrelsim
