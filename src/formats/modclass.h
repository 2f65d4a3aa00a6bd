// Sorting 31-instrument tracker modules by the tracker that wrote them.
#pragma once

#include <cstdint>

int mod_tag_is_31(const uint8_t* module);
int mod31_classify(const uint8_t* module, uint32_t len);
