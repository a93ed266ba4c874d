# Data files compiled into the library: each becomes a generated C++ source
# defining one constant byte array. AFEHAL_EMBEDDED_SOURCES lists them.
set(AFEHAL_EMBEDDED_SOURCES "")
