/* Status codes of the toolkit's object layer and flat functions: 0 is
   success, negative values are failures. */
#pragma once

enum {
  /* A block could not be allocated. */
  KV_ERR_MEMORY = -1031
};
