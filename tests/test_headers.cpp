// Compiled for the sake of the headers that the tests share; see CMakeLists.txt.
