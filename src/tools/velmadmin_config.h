// `velmadmin config ...`: argv[0] is "config". Returns the exit status.
#pragma once

int velmadminConfigMain(int argc, char** argv);
