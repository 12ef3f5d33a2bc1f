// The page that lists the films, plays them and shows live figures.
#pragma once

#include <string>
#include <vector>

#include "films.h"

namespace bridge {

std::string page(const std::vector<film> &films);

}  // namespace bridge
