DIAG module for the diagnostic tests
