c2ms_fuzz(pdu pdu.cpp c2ms_core)
c2ms_fuzz(report report.cpp c2ms_core c2ms_testing)
c2ms_fuzz(unit unit.cpp c2ms_core)
c2ms_fuzz(url url.cpp c2ms_core)
