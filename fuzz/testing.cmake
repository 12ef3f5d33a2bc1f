c2ms_fuzz(server_request server_request.cpp c2ms_testing)
