# Draws what bench/store_growth.cpp prints. Usage:
#   gnuplot -e "data='growth.tsv'; drawing='growth.svg'" bench/store_growth.gnuplot
set terminal svg size 760,460 font "sans-serif,13" background "#ffffff"
set output drawing
set logscale xy
set xlabel "records in each file"
set ylabel "processor time"
set xrange [7:140000]
set xtics ("10" 10, "100" 100, "1,000" 1000, "10,000" 10000, "100,000" 100000)
set ytics ("10 µs" 10, "100 µs" 100, "1 ms" 1e3, "10 ms" 1e4, "100 ms" 1e5, "1 s" 1e6, "10 s" 1e7)
set grid linecolor "#dddddd"
set key top left
plot data using 1:4 with linespoints pointtype 5 linecolor "#c0392b" title "key store: add and delete", \
     data using 1:2 with linespoints pointtype 7 linecolor "#2c3e50" title "key store: look up", \
     data using 1:5 with linespoints pointtype 4 linecolor "#e59866" title "SQLite: add and delete", \
     data using 1:3 with linespoints pointtype 6 linecolor "#85929e" title "SQLite: look up"
