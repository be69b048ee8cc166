# Draws the curves of a report: gnuplot -c curves.gnuplot DIRECTORY
directory = ARG1
# Without enhanced text a picture changes only with its figures.
set terminal svg size 760,420 font "sans-serif,12" background rgb "white" noenhanced
set key left top
set grid
set logscale xy

set output directory."/performance-sessions.svg"
set title "Throughput: each session repeats GetDoorInfo? as soon as it has the answer"
set xlabel "sessions"
set ylabel "requests a second"
set logscale x 2
data = directory."/sessions.dat"
plot data index 0 using 1:2 with linespoints lw 2 pt 7 title "agent", \
     data index 0 using 1:3 with linespoints lw 1 dt 2 pt 6 title "baseline"

set output directory."/performance-tables.svg"
set title "Processor time of a request as tables grow"
set xlabel "rows of each table"
set ylabel "microseconds a request"
set logscale x 10
data = directory."/tables.dat"
name(i) = system(sprintf("grep '^\"' %s | sed -n '%dp' | tr -d '\"'", data, i + 1))
plot for [i=0:3] data index i using 1:2 with linespoints lw 2 pt 7 lc i + 1 \
         title name(i)." agent", \
     for [i=0:3] data index i using 1:3 with linespoints lw 1 dt 2 pt 6 lc i + 1 \
         title name(i)." baseline"
