// Seeds the differential fuzzer with every recipe that changes one knob of the forge.
//   forge_seeds CORPUS
#include <cstdio>
#include <string>

#include "certificate_forge.h"

int main(int argc, char** argv) {
  if (argc != 2) return 64;
  int written = 0;
  for (const LDForgeRecipe& recipe : LDForgeSingleChanges()) {
    const std::string path = std::string(argv[1]) + "/recipe-" + std::to_string(written++);
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) return 1;
    const bool complete = std::fwrite(recipe.data(), 1, recipe.size(), file) == recipe.size();
    if (std::fclose(file) != 0 || !complete) return 1;
  }
  return 0;
}
