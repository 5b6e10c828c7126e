// Calibrates a frame by a dark and a flat: calibrate LIGHT DARK FLAT RESULT.
#include <cstdio>

#include "session/operations/Operations.h"
#include "session/picture/Images.h"

using namespace korimg::session;

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "calibrate LIGHT DARK FLAT RESULT\n");
    return 2;
  }
  try {
    // What the work needs of the world: here nobody listens, and memory is what the machine has to spare.
    Job job;
    Image light = Image::Open(job, argv[1]);
    // The same operation as `korimg apply dark-flat dark=DARK flat=FLAT`. Values are checked as they are set.
    Step step(FindOperation("dark-flat"));
    step.Set("dark", argv[2]).Set("flat", argv[3]);
    step.Run(job, light);
    light.Header().AddHistory(step.Text());
    SaveImage(job, light.Pixels(), light.Header(), argv[4]);
    std::printf("%s: %d x %d, %d planes\n", argv[4], light.Width(), light.Height(), light.Planes());
  } catch (const Error& error) {
    // One line that says what is wrong and what to do; the kind tells whose fault it is.
    std::fprintf(stderr, "%s\n", error.what());
    return error.Kind() == ErrorKind::Usage ? 2 : 1;
  }
}
