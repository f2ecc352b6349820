// The body of vigilo, entered with the arguments already converted to UTF-8.
#ifndef VIGILO_SRC_FRONT_OV_MAIN_H_
#define VIGILO_SRC_FRONT_OV_MAIN_H_

// Parses the command line into the settings and runs the watch. Returns the exit status. The
// arguments must stay valid until the process ends. Ends the process itself for -h and -V.
int ov_main(int argc, char** argv);

#endif  // VIGILO_SRC_FRONT_OV_MAIN_H_
