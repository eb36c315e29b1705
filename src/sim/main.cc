// tavrin-sim FILE | -: runs a scenario and prints what the agent does.
#include <fstream>
#include <iostream>

#include "sim/Simulator.h"

int main(int argc, char** argv) {
   if (argc != 2) {
      std::cerr << "usage: tavrin-sim FILE | -\n";
      return 2;
   }
   std::string path = argv[1];
   std::ifstream file;
   std::istream* in = &std::cin;
   if (path != "-") {
      file.open(path);
      if (!file) {
         std::cerr << "tavrin-sim: cannot open " << path << '\n';
         return 2;
      }
      in = &file;
   }
   std::ios::sync_with_stdio(false);
   Tavrin::Sim::Simulator sim(std::cout);
   int status = sim.run(*in, std::cerr);
   std::cout.flush();
   return status;
}
