// Of the packages only what is used is told; their own files lie in node_modules.
declare const OpenSeadragon: any;
declare const uPlot: any;
