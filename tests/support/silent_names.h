// A name server that keeps silent: in a program with this source the look-up of a name that ends in
// ".silent" lasts until it is answered. Other names are looked up as ever.
#pragma once

namespace kvl {

class CSilentNames {
 public:
  // Look-ups that were begun. Any thread.
  static int Begun();

  // Until Hush every look-up, one under way included, finds this machine.
  static void Answer();
  static void Hush();
};

}  // namespace kvl
