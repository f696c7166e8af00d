#include "asn1/counters.h"

#include <iostream>

extern "C" {
int32_t newnumber = 0;
int32_t delnumber = 0;

void terminal(void) {
  std::cout << "new number : " << newnumber << std::endl;
  std::cout << "delete number : " << delnumber << std::endl;
}
}
