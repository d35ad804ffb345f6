c++ -std=c++20 main.cpp $(pkg-config --cflags --libs TarniOSCommonKit) -o my_app
