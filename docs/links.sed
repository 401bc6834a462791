# Links between the texts as Doxygen has them: by a page's label, since not every release resolves paths. What is no
# page is not linked.
s#\[([^]]*)\]\(([^):]*/)?(threads|operation|interface|permissions|python|costs|install|testing)[.]md\)#\\ref \3 "\1"#g
s#\[([^]]*)\]\(([^):]*/)?simulated-bus[.]md\)#\\ref simcan "\1"#g
s#\[([^]]*)\]\(([^):]*/)?back-ends[.]md\)#\\ref backends "\1"#g
s#\[([^]]*)\]\(([^):]*/)?include/tn_corvel[.]h\)#\\ref tn_corvel.h "\1"#g
s#\[([^]]*)\]\([^):]*\)#\1#g
# What only a reader of the tree needs.
/^<!-- tree -->$/,/^<!-- end -->$/d
