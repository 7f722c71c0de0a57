// Green screen, stage 4 of 4: srcImage is the keyed foreground of stage 3,
// image2 the background. Hardens the mask, lets some of the background light
// wrap around the foreground's edges, and composes the two.
varying vec2 tex_coord;

uniform sampler2D srcImage;
uniform sampler2D image2;
uniform float cov_y = 0.75;
uniform float wrap_cof = 0.08;

void main()
{
    vec4 fg = texture2D(srcImage, tex_coord);
    vec4 bg = texture2D(image2, tex_coord);
    float fullMask = smoothstep(0.35, 0.95, fg.a);
    // Full wrap where the mask is weak, none where it is solid.
    float cov = 1.0 - max(0.0, fg.a - cov_y) / (1.0 - cov_y);
    vec3 rgb = clamp(fg.rgb + bg.rgb * cov * wrap_cof, 0.0, 1.0);
    if (bg.a > 0.001)
        gl_FragColor = bg * (1.0 - fullMask) + vec4(rgb, 1.0) * fullMask;
    else
        gl_FragColor = vec4(rgb, fullMask);
}
