// The cases of each family.
#pragma once

#include "child.h"
#include "world.h"

namespace sweep {

/// How the number of calls is found that can fail one by one.
using counter = std::function<std::vector<uint32_t>(const Case &)>;

/// Those whose name begins with `what`; `quick` thins them out.
std::vector<Case> cases_of(const std::string &what, bool quick, World &world, const counter &count);

void add_closing(std::vector<Case> *cases);
void add_fatal(std::vector<Case> *cases);

}  // namespace sweep
