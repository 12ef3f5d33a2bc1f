c2ms_fuzz(lzma86 lzma86.cpp compress)
