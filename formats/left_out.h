// Contours that an SLC or FDM output cannot hold, counted by what they were,
// and the one warning that names them at the end of the run.
#pragma once

#include <cstdint>
#include <string>

#include "laytran/model.h"

namespace laytran {

class LeftOut {
  public:
    void add(ContourKind kind) {
        if (kind == ContourKind::hatches)
            n_[0]++;
        else if (kind == ContourKind::support)
            n_[1]++;
        else if (kind == ContourKind::web)
            n_[2]++;
        else
            n_[3]++;
    }

    // E.g. "the SLC format holds part contours only: 2 hatch blocks and 1
    // support contour were left out"; empty when nothing was left out.
    std::string warning(const char *format) const {
        static const char *const one[] = {"hatch block", "support contour", "web contour",
                                          "contour of another type"};
        static const char *const many[] = {"hatch blocks", "support contours", "web contours",
                                           "contours of another type"};
        std::uint64_t total = 0;
        int items = 0;
        for (std::uint64_t n : n_) {
            total += n;
            items += n != 0;
        }
        if (total == 0) return {};
        std::string text = std::string("the ") + format + " format holds part contours only: ";
        int listed = 0;
        for (int k = 0; k < 4; k++) {
            if (n_[k] == 0) continue;
            if (listed > 0) text += listed == items - 1 ? " and " : ", ";
            text += std::to_string(n_[k]) + ' ' + (n_[k] == 1 ? one[k] : many[k]);
            listed++;
        }
        return text + (total == 1 ? " was left out" : " were left out");
    }

  private:
    std::uint64_t n_[4] = {}; // hatches, support, web, other
};

} // namespace laytran
